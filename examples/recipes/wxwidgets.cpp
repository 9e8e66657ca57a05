#include <kelvo/KelvoSDK.h>
#include <wx/wx.h>
class Notes : public wxApp {
  bool OnInit() override {
    kelvo::Application::setMainLoop([this](std::function<void()> task) { CallAfter(task); },
                                    [] { return wxIsMainThread(); });
    kelvo::KelvoSDK::start(kelvo::Options("wx-notes"));
    Bind(wxEVT_ACTIVATE_APP, [](wxActivateEvent& event) {
      event.GetActive() ? kelvo::Application::didBecomeActive() : kelvo::Application::willResignActive();
      event.Skip();
    });
    SetSignalHandler(SIGTERM, [](int) { wxTheApp->ExitMainLoop(); });
    (new wxFrame(nullptr, wxID_ANY, "Notes"))->Show();
    kelvo::Application::didBecomeActive();  // wxWidgets reports later changes only
    kelvo::KelvoSDK::logAppEventWithName("Document opened", {{"pages", 3}});
    return true;
  }
  int OnExit() override {
    kelvo::Application::setMainLoop({}, {});  // the loop has ended
    kelvo::Application::willResignActive();
    kelvo::KelvoSDK::flushAndWait(std::chrono::seconds(3));
    return wxApp::OnExit();
  }
};
wxIMPLEMENT_APP(Notes);
