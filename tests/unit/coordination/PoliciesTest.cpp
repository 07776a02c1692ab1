#include <gtest/gtest.h>

#include "coordination/HostedViewerRecoveryPolicy.h"

namespace kestrune {
namespace {

using Reason = HostedTransportRecoveryReason;

TEST(HostedViewerRecoveryPolicyTest, AnEmptyBufferForEightSecondsReplacesTheTransportOnceInTwenty) {
  HostedViewerRecoveryPolicy policy;
  policy.viewerConnected(100);
  EXPECT_FALSE(policy.evaluateTelemetry(100, 0.1, 0, true));
  EXPECT_FALSE(policy.evaluateTelemetry(107.9, 0, 0, true));
  EXPECT_EQ(policy.evaluateTelemetry(108, 0, 0, true), Reason::emptyVideoBuffer);
  for (double now = 109; now < 128; ++now) EXPECT_FALSE(policy.evaluateTelemetry(now, 0, 0, true));
  EXPECT_EQ(policy.evaluateTelemetry(128, 0, 0, true), Reason::emptyVideoBuffer);
  policy.viewerDisconnected();
  policy.viewerConnected(129);
  EXPECT_FALSE(policy.evaluateTelemetry(130, 0, 0, true));
  EXPECT_FALSE(policy.evaluateTelemetry(134, 0.11, 0, true));  // shows something: the stall begins anew
  EXPECT_FALSE(policy.evaluateTelemetry(138, 0, 0, true));
  EXPECT_FALSE(
      policy.evaluateTelemetry(142, 0, 1, true));  // so does a buffer, or an encoder that gave nothing
  EXPECT_FALSE(policy.evaluateTelemetry(150, 0, 0, false));
  EXPECT_FALSE(policy.evaluateTelemetry(158, 0, 0, true));
  EXPECT_EQ(policy.evaluateTelemetry(166, 0, 0, true), Reason::emptyVideoBuffer);
}

TEST(HostedViewerRecoveryPolicyTest, SilenceForTenSecondsReplacesTheTransportUntilTheViewerIsGone) {
  HostedViewerRecoveryPolicy policy;
  EXPECT_FALSE(policy.checkTelemetryTimeout(1000));
  policy.viewerConnected(100);
  EXPECT_FALSE(policy.checkTelemetryTimeout(109.9));
  EXPECT_EQ(policy.checkTelemetryTimeout(110), Reason::telemetryTimeout);
  EXPECT_FALSE(policy.checkTelemetryTimeout(129.9));
  EXPECT_EQ(policy.checkTelemetryTimeout(130), Reason::telemetryTimeout);
  policy.viewerDisconnected();
  EXPECT_FALSE(policy.checkTelemetryTimeout(200));
}

}  // namespace
}  // namespace kestrune
