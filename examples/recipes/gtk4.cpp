#include <glib-unix.h>
#include <gtk/gtk.h>
#include <kelvo/KelvoSDK.h>
using Task = std::function<void()>;
int main() {
  gtk_init();
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  const auto run = +[](void* task) { return (*std::unique_ptr<Task>(static_cast<Task*>(task)))(), G_SOURCE_REMOVE; };
  kelvo::Application::setMainLoop([=](Task task) { g_idle_add(run, new Task(std::move(task))); },
                                  [] { return g_main_context_is_owner(nullptr) != FALSE; });
  kelvo::KelvoSDK::start(kelvo::Options("gtk-notes"));
  GtkWidget* window = gtk_window_new();
  const auto follow = +[](GtkWindow* its) {
    gtk_window_is_active(its) ? kelvo::Application::didBecomeActive() : kelvo::Application::willResignActive();
  };
  g_signal_connect(window, "notify::is-active", G_CALLBACK(follow), nullptr);
  g_signal_connect_swapped(window, "destroy", G_CALLBACK(g_main_loop_quit), loop);
  const auto quit = +[](void* its) { return g_main_loop_quit(static_cast<GMainLoop*>(its)), G_SOURCE_REMOVE; };
  g_unix_signal_add(SIGTERM, quit, loop);
  gtk_window_present(GTK_WINDOW(window));
  kelvo::KelvoSDK::logAppEventWithName("Document opened", {{"pages", 3}});
  g_main_loop_run(loop);
  kelvo::Application::willResignActive();
  kelvo::KelvoSDK::flushAndWait(std::chrono::seconds(3));
}
