#include "support/DisplayServer.h"

#include <unistd.h>

#include <csignal>

namespace kelvo::test {
namespace {

constexpr const char* kServer = "/usr/bin/Xvfb";
constexpr const char* kManager = "/usr/bin/openbox";

}  // namespace

std::unique_ptr<DisplayServer> DisplayServer::start(Manager manager) {
#if defined(__SANITIZE_THREAD__)
  return nullptr;
#endif
  if (::access(kServer, X_OK) != 0 || (manager == Manager::openbox && ::access(kManager, X_OK) != 0)) return nullptr;
  auto display = std::make_unique<DisplayServer>();
  // The server picks a free number, and writes it with a line feed once it takes connections.
  const std::vector<std::string> command = {kServer,   "-displayfd", "1",          "-nolisten", "tcp",
                                            "-screen", "0",          "800x600x24", "-nocursor"};
  display->server_ = std::make_unique<Program>(command, Program::Environment());
  if (!display->server_->waitForOutput("\n")) return nullptr;
  const std::string number = display->server_->output();
  display->name_ = ":" + number.substr(0, number.find('\n'));
  if (manager == Manager::none) return display;
  display->manager_ =
      std::make_unique<Program>(std::vector<std::string>{kManager, "--startup", "echo ready"}, display->environment());
  return display->manager_->waitForOutput("ready") ? std::move(display) : nullptr;
}

DisplayServer::~DisplayServer() {
  manager_.reset();
  if (server_ == nullptr) return;
  server_->kill(SIGTERM);  // so that it removes its socket and its lock
  server_->wait();
}

}  // namespace kelvo::test
