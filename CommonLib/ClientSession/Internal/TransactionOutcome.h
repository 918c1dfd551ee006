// How a transaction ended, and how its notification tells it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ClientSession/OstrelDaemonSession.h"

namespace ostrel {

struct OstrelDaemonSession::Outcome {
  std::int32_t status = 3;
  Text sessionID;
  Text failureReason;
  PlistValue result;
  std::size_t newBytes = 0;  ///< bytes of the reply's body

  /// Makes the result that of a transaction without a reply, with a reason if there is none yet.
  void fail(const OstrelDaemonSessTask& task);
};

namespace detail {

/// What every notification tells about its task: a mutable dictionary of "name", "transactionNb" and "service".
PlistValue notificationDetails(const OstrelDaemonSessTask& task, std::string_view about);

}  // namespace detail
}  // namespace ostrel
