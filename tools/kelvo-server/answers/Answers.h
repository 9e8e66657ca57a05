#pragma once

#include <functional>
#include <string>

#include "kelvo-server/answers/Metrics.h"
#include "kelvo-server/http/Listener.h"
#include "kelvo-server/store/Writer.h"

namespace kelvo::server {

class DocumentCache;
class Workers;

struct AnswersSettings {
  bool isStrict = false;  ///< answers a body that is no chunk with 400 instead of keeping it
  int retryAfter = 20;    ///< seconds; a refused device is sent away for one to three times as long
};

/// Returns an answer with an error for people. A device that should come back learns when: at a random time, so that a
/// fleet does not return at once.
[[nodiscard]] Answer refusalAnswer(int status, const std::string& reason, const AnswersSettings& settings);

/// Answers the requests of one loop. Thread: the loop's.
class Answers {
 public:
  /// Everything here must outlive it. `workers` decode large bodies.
  struct Parts {
    Loop& loop;
    Workers& workers;
    Writer& writer;
    const DocumentCache& documents;
    Limits& limits;
    Metrics& metrics;
    AnswersSettings settings;
  };
  using Done = std::function<void(Answer)>;
  explicit Answers(Parts parts) : parts_(parts) {}

  void answer(service::Request request, Done done);

 private:
  void takeChunk(service::Request request, const std::string& app, Done done);
  void storeChunk(DecodedChunk decoded, const std::string& app, Done done);
  void quarantine(const std::string& app, const std::string& device, std::string body, std::string reason, Done done);
  void takeUserInfo(service::Request request, const std::string& app, Done done);
  void takeErasure(const service::Device& device, const std::string& secret, Done done);
  void finish(Verdict verdict, AppCounts& counts, std::size_t events, const Done& done);
  [[nodiscard]] Answer unavailable(AppCounts& counts) const;

  Parts parts_;
};

}  // namespace kelvo::server
