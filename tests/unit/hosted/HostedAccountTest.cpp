#include <gtest/gtest.h>

#include <cmath>

#include "hosted/HostedIssueReporter.h"
#include "hosted/HostedSignalingProvisioner.h"
#include "platform/support/Json.h"
#include "platform/support/Url.h"
#include "support/FakeHTTPClient.h"
#include "support/ManualTime.h"

namespace kestrune {
namespace {

const std::string kInvalid = "The signaling service returned an invalid response.";
const std::string kApproved = R"({"status":"approved","deviceID":"d","macToken":"m","viewerToken":"v")";
const std::string kStarted = R"({"authorizationID":"a","pollToken":"p",)";

class HostedAccountTest : public testing::Test {
 protected:
  enum class Call { start, poll, report };

  /// All that the calls give, in a line; the text of the failure where they fail.
  Task<void> run(Call call) {
    if (call == Call::start) {
      const auto made =
          co_await HostedSignalingProvisioner::startDeviceAuthorization(client_, "https://host/b");
      outcome_ =
          made.pollToken + " " + made.verificationURL + " " + std::to_string(made.expiresAtMilliseconds);
    } else if (call == Call::poll) {
      const HostedDeviceAuthorization authorization{"a\"1", "p", "u", 0};
      auto poll = HostedSignalingProvisioner::pollDeviceAuthorization(client_, "https://host", authorization);
      const auto made = co_await poll;
      outcome_ = made ? made->serviceURL + " " + made->macToken + " " + made->viewerURL : "pending";
    } else {
      MacHostIssueReport report;
      report.diagnostics.viewerFPS = std::nan("");
      const HostedSignalingCredentials credentials{"https://host/b", "d/1?x", "mac", "v", "u"};
      auto answer = HostedIssueReporter::report(client_, report, credentials);
      outcome_ = (co_await answer).issueURL;
    }
  }
  std::string outcome(Call call, int status, const std::string& body) {
    const auto handle = startTask(queue_, run(call));
    time_->runReady();
    client_->answer(status, body);
    time_->runReady();
    return handle.failure() ? localizedDescription(handle.failure()) : outcome_;
  }

  const std::shared_ptr<ManualTime> time_ = ManualTime::make();
  const std::shared_ptr<SerialQueue> queue_ = time_->makeQueue();
  const std::shared_ptr<FakeHTTPClient> client_ = std::make_shared<FakeHTTPClient>();
  std::string outcome_;
};

TEST_F(HostedAccountTest, RepliesAreReadStrictly) {
  struct Case {
    Call call;
    int status;
    std::string body, outcome;
  };
  const std::string unstarted = "Could not start Kestrune sign-in.";
  for (const auto& [call, status, body, expected] : std::vector<Case>{
           {Call::start, 201, kStarted + R"("expiresAt":5000.9,"verificationURL":"https://h"})",
            "p https://h 5000"},
           {Call::start, 200, kStarted + R"("expiresAt":1,"verificationURL":"https://h"})", unstarted},
           {Call::start, 429, R"({"error":"Too many"})", "Too many"},
           {Call::start, 500, R"({"error":1})", unstarted},
           {Call::start, 0, "", kInvalid},
           {Call::start, 201, kStarted + R"("expiresAt":"1","verificationURL":"https://h"})", kInvalid},
           {Call::start, 201, kStarted + R"("expiresAt":1,"verificationURL":"no url"})", kInvalid},
           {Call::poll, 200, kApproved + R"(,"viewerURL":"https://h/v#v"})", "https://host m https://h/v#v"},
           {Call::poll, 200, R"({"status":"pending"})", "pending"},
           {Call::poll, 404, R"({"error":"x"})", "Sign-in expired. Please try again."},
           {Call::poll, 201, R"({"status":"pending"})", "Could not finish Kestrune sign-in."},
           {Call::poll, 200, kApproved + R"(,"viewerURL":null})", kInvalid},
           {Call::poll, 200, R"({"status":"pending","deviceID":1})", kInvalid},
           {Call::poll, 200, R"({"status":"denied"})", kInvalid},
           {Call::report, 201, R"({"issueNumber":7,"issueURL":"https://h/7","reportId":"1"})", "https://h/7"},
           {Call::report, 200, "{}", "Could not report diagnostics."},
           {Call::report, 201, R"({"issueNumber":7,"reportId":"1"})", kInvalid}}) {
    EXPECT_EQ(outcome(call, status, body), expected) << status << body;
  }
}

TEST_F(HostedAccountTest, RequestsStayBelowTheServiceAndSendNoMoreThanTheyMust) {
  for (const Call call : {Call::start, Call::poll, Call::report}) outcome(call, 500, "");
  const auto& [start, poll, report] =
      std::tie(client_->requests[0], client_->requests[1], client_->requests[2]);
  EXPECT_EQ(start.url, "https://host/b/api/account/device-authorizations");
  EXPECT_TRUE(start.method == "POST" && start.headers.empty() && start.body.empty());
  EXPECT_EQ(poll.url, "https://host/api/account/device-authorizations/status");
  EXPECT_EQ(std::string(poll.body.begin(), poll.body.end()), R"({"authorizationID":"a\"1","pollToken":"p"})");
  EXPECT_EQ(report.url, "https://host/b/api/devices/d/1%3Fx/issues");
  EXPECT_EQ(report.headers.back().second, "Bearer mac");
  const auto sent = parseJson(std::string(report.body.begin(), report.body.end()));
  EXPECT_EQ(sent->find("diagnostics")->object()->size(), 26u);
  EXPECT_EQ(sent->find("diagnostics")->find("viewerFPS")->number(), 0);
}

TEST(ServiceURL, IsNormalizedOrRefused) {
  const auto normalized = [](std::string_view text) {
    return HostedSignalingProvisioner::normalizedServiceURL(text).value_or("");
  };
  EXPECT_EQ(normalized(" \thttps://host/ \r\n"), "https://host");
  EXPECT_EQ(normalized("HTTPS://host:8443//fleet/a%2F/?q=1#f"), "https://host:8443/fleet/a%2F");
  EXPECT_EQ(normalized("http://[2001:db8::1]:/"), "http://[2001:db8::1]");
  using namespace std::string_literals;
  for (const auto& text : {""s, "ftp://host"s, "https:///x"s, "https:x"s, "host"s, "https://good@evil"s,
                           "https://host:0"s, "https://host:65536"s, "https://ho%2Fst"s, "https://ho st"s,
                           "https://h\0x"s, "https://host/" + std::string(2048, 'x')}) {
    EXPECT_EQ(normalized(text), "") << text;
  }
  const auto append = [](std::string_view path) { return urlByAppendingPath("https://host/b/", path); };
  EXPECT_EQ(append("/@evil:1//a?b#c%2e \xC3\xBC\r\n"),
            "https://host/b/@evil:1//a%3Fb%23c%252e%20%C3%BC%0D%0A");
  for (const auto* path : {"//../x", "/d/..", "/./d", ".evil.example/", "@evil/"}) EXPECT_FALSE(append(path));
}

}  // namespace
}  // namespace kestrune
