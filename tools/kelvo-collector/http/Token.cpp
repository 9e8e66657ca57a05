#include "kelvo-collector/http/Token.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kelvo::collector {
namespace {

constexpr std::size_t kBytes = 16;

std::string randomText() {
  std::array<unsigned char, kBytes> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error("the system gives no random bytes");
  }
  std::string text;
  for (const unsigned char byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

}  // namespace

Token::Token(std::string file) : file_(std::move(file)), text_(randomText()) {
  unlink(file_.c_str());  // fails for another user's file in a shared directory; O_EXCL then refuses it, links included
  const int descriptor = open(file_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0) throw std::runtime_error(file_ + ": " + std::strerror(errno));
  const std::string line = text_ + "\n";
  const bool written = write(descriptor, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  close(descriptor);
  if (!written) throw std::runtime_error(file_ + ": the token cannot be written");
}

Token::~Token() {
  unlink(file_.c_str());
}

}  // namespace kelvo::collector
