#include "faults/Faults.h"

namespace kelvo::test {
namespace {

// --- Services that cannot or must not be reached

struct Endpoint {
  const char* name;
  const char* url;
  const char* line;  ///< a log line of the launch
  // A test server's certificate; without names, the launch uses `url`.
  const char* certified = "";
  int days = 2;
  bool trusted = true;
};

const Endpoint kEndpoints[] = {
    {"none", "", "<KLV ERROR> No service endpoint: set KELVO_SERVER_BASE_URL"},
    {"noURL", "somewhere", "<KLV ERROR> The service endpoint is malformed: somewhere is not a URL; "},
    {"unknownName", "https://no-such-host.invalid", "failed : Could not resolve host: no-such-host.invalid"},
    {"nobodyListens", "https://127.0.0.1:1", "failed : Failed to connect to 127.0.0.1"},
    {"cleartext", "http://192.0.2.1", "<KLV ERROR> Refused to send cleartext to 192.0.2.1"},
    {"wrongHost", "", "SSL: no alternative certificate subject name matches target host name '127.0.0.1'",
     "DNS:elsewhere.example"},
    {"unknownAuthority", "", "SSL certificate problem: self-signed certificate", "IP:127.0.0.1", 2, false},
    {"expired", "", "SSL certificate problem: certificate has expired", "IP:127.0.0.1", -1},
};

class Unreachable : public Faults, public testing::WithParamInterface<Endpoint> {};

TEST_P(Unreachable, ServiceGetsNothingAndTheNextLaunchDelivers) {
  const Endpoint& given = GetParam();
  collector::Server elsewhere;
  Machine machine{{}, {{"KELVO_SERVER_BASE_URL", given.url}}};
  if (*given.certified != '\0') {
    machine.environment = serveTLS(elsewhere, given.certified, given.days, given.trusted);
  }
  auto faulty = launch(machine);
  faulty.untilReady().log("During");
  EXPECT_EQ(faulty.quit(), 3) << faulty.errors();
  EXPECT_GE(count(faulty.errors(), given.line), 1U) << faulty.errors();
  EXPECT_TRUE(elsewhere.requests().empty());
  expectTheNextLaunchGoesOn();
  EXPECT_EQ(arrived("During"), 1);
}

INSTANTIATE_TEST_SUITE_P(Endpoints, Unreachable, testing::ValuesIn(kEndpoints),
                         [](const auto& test) { return test.param.name; });

TEST_F(Faults, AServiceThatIsBrokenOnEveryPathNeverReachesTheHostAndTheNextLaunchDelivers) {
  const struct {
    const char* name;
    Script onEveryPath;
    int exitStatus;
    bool accepted;  // the library takes status 200 as success, whatever the body
  } cases[] = {{"never", Script::never(), 3, false},
               {"status500", 500, 3, false},
               {"reset", Script::cut(), 3, false},
               {"garbage", Script::garbage(), 0, true},
               {"aMegabyte", Script(200, R"({"details": ")" + std::string(1 << 20, 'x') + R"("})"), 0, true},
               {"late", Script::late(std::chrono::milliseconds(200)), 0, false}};
  for (const auto& given : cases) {
    SCOPED_TRACE(given.name);
    moveToFreshHome(given.name);
    service.answer("/v2", given.onEveryPath);
    auto faulty = launch({}, given.exitStatus == 0 ? "10" : "1");
    faulty.call("didBecomeActive").log(given.name);
    EXPECT_EQ(faulty.quit(), given.exitStatus) << faulty.errors();
    service.answerNormally("/v2");
    expectTheNextLaunchGoesOn();
    EXPECT_EQ(arrived(given.name) > 0, !given.accepted);
  }
}

}  // namespace
}  // namespace kelvo::test
