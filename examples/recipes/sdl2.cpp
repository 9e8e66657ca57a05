#include <SDL.h>
#include <kelvo/KelvoSDK.h>
using Task = std::function<void()>;
int main(int, char**) {
  SDL_Init(SDL_INIT_VIDEO);  // SDL turns SIGTERM and SIGINT into SDL_QUIT
  const auto post = [type = SDL_RegisterEvents(1)](Task task) {
    SDL_Event event{type};
    event.user.data1 = new Task(std::move(task));
    SDL_PushEvent(&event);
  };
  kelvo::Application::setMainLoop(post, [id = SDL_ThreadID()] { return id == SDL_ThreadID(); });
  kelvo::KelvoSDK::start(kelvo::Options("sdl-game"));
  SDL_CreateWindow("Game", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, 320, 240, 0);
  kelvo::KelvoSDK::logAppEventWithName("Level started", {{"level", 1}});
  for (SDL_Event event; SDL_WaitEvent(&event) != 0 && event.type != SDL_QUIT;) {
    if (event.type >= SDL_USEREVENT) (*std::unique_ptr<Task>(static_cast<Task*>(event.user.data1)))();
    const int change = event.type == SDL_WINDOWEVENT ? event.window.event : 0;
    if (change == SDL_WINDOWEVENT_FOCUS_GAINED) kelvo::Application::didBecomeActive();
    if (change == SDL_WINDOWEVENT_FOCUS_LOST) kelvo::Application::willResignActive();
  }
  kelvo::Application::setMainLoop({}, {});  // SDL's loop has ended
  kelvo::Application::willResignActive();
  kelvo::KelvoSDK::flushAndWait(std::chrono::seconds(3));
  SDL_Quit();
}
