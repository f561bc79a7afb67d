// The six queries: each names its operation, runs the exchange, maps its code.

#include "stapi_zeb_statquery.h"

#include "stapi_zeb_diag.h"
#include "stapi_zeb_socketcomms.h"
#include "stapi_zeb_statcomms.h"
#include "stapi_zeb_version.h"
extern "C" {
extern const char stapi_zeb_statquery_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_statquery_notice[] = ZEB_NOTICE("stapi_zeb_statquery");
}

namespace zeb {
namespace {

constexpr char STATS_MBEAN_ACTION_GET_STATS[] = "GET_STATS";
constexpr char STATS_MBEAN_ACTION_STAT_IDS[] = "STAT_IDS";
constexpr char STATS_MBEAN_ACTION_RESOURCE_GROUPS[] = "RESOURCE_GROUPS";

int mapExchangeCode(int rc, const reasons& failure) noexcept {
  if (rc == 0) return 0;
  return isConnectionLost(rc, failure) ? ZEB_CONNECTION_LOST : ZEB_COMMUNICATION_FAILED;
}

struct Dispatch {
  const char* function;
  int answerPoint;
};

// ids is null for the operations that are asked without a query string.
int ask(const Dispatch& dispatch, int socketDesc, const char* operation, const char* ids,
        char* buffer) noexcept {
  int rc = ZEB_BUFFER_NULL;
  if (buffer != nullptr) {
    reasons failure = {};
    const int exchangeRc = ids == nullptr
                               ? statComms(socketDesc, operation, buffer, &failure)
                               : statCommsString(socketDesc, operation, ids, buffer, &failure);
    rc = mapExchangeCode(exchangeRc, failure);
  }
  if (rc == 0 || buffer == nullptr) {
    TRACE_DATA(dispatch.answerPoint, "stapi_zeb_statquery.%s",
               (TracedStorage{buffer, 0, kTerminator, kResultSetBufferSize}), kTerminator,
               dispatch.function);
  }
  return rc;
}

}  // namespace
}  // namespace zeb

using namespace zeb;

int commsStats(int socketDesc, char* buffer) noexcept {
  TRACE_ENTRY(4100, "stapi_zeb_statquery.commsStats(socketDesc=%d, buffer=%p)\n", socketDesc,
              buffer);
  const int rc =
      ask({"commsStats", 4112}, socketDesc, STATS_MBEAN_ACTION_GET_STATS, nullptr, buffer);
  TRACE_EXIT(4101, "stapi_zeb_statquery.commsStats(socketDesc=%d, buffer=%p) zebstatRc=%d\n",
             socketDesc, buffer, rc);
  return rc;
}

int commsStatIds(int socketDesc, char* buffer) noexcept {
  TRACE_ENTRY(4102, "stapi_zeb_statquery.commsStatIds(socketDesc=%d, buffer=%p)\n", socketDesc,
              buffer);
  const int rc =
      ask({"commsStatIds", 4113}, socketDesc, STATS_MBEAN_ACTION_STAT_IDS, nullptr, buffer);
  TRACE_EXIT(4103, "stapi_zeb_statquery.commsStatIds(socketDesc=%d, buffer=%p) zebstatRc=%d\n",
             socketDesc, buffer, rc);
  return rc;
}

int commsResourceGroupsIds(int socketDesc, char* buffer) noexcept {
  TRACE_ENTRY(4104, "stapi_zeb_statquery.commsResourceGroupsIds(socketDesc=%d, buffer=%p)\n",
              socketDesc, buffer);
  const int rc = ask({"commsResourceGroupsIds", 4114}, socketDesc,
                     STATS_MBEAN_ACTION_RESOURCE_GROUPS, nullptr, buffer);
  TRACE_EXIT(4105,
             "stapi_zeb_statquery.commsResourceGroupsIds(socketDesc=%d, buffer=%p) zebstatRc=%d\n",
             socketDesc, buffer, rc);
  return rc;
}

// quirk: the three with ids print zebStatRc, the three without print zebstatRc

int commsStatsByStatGroupId(int socketDesc, char* buffer, const char* ids) noexcept {
  TRACE_ENTRY(4106,
              "stapi_zeb_statquery.commsStatsByStatGroupId(socketDesc=%d, buffer=%p, ids=%p)\n",
              socketDesc, buffer, ids);
  const int rc =
      ask({"commsStatsByStatGroupId", 4115}, socketDesc, STATS_MBEAN_ACTION_GET_STATS, ids, buffer);
  TRACE_EXIT(
      4107,
      "stapi_zeb_statquery.commsStatsByStatGroupId(socketDesc=%d, buffer=%p, ids=%p) zebStatRc=%d\n",
      socketDesc, buffer, ids, rc);
  return rc;
}

int commsStatsByStatId(int socketDesc, char* buffer, const char* ids) noexcept {
  TRACE_ENTRY(4108, "stapi_zeb_statquery.commsStatsByStatId(socketDesc=%d, buffer=%p, ids=%p)\n",
              socketDesc, buffer, ids);
  const int rc =
      ask({"commsStatsByStatId", 4116}, socketDesc, STATS_MBEAN_ACTION_GET_STATS, ids, buffer);
  TRACE_EXIT(
      4109,
      "stapi_zeb_statquery.commsStatsByStatId(socketDesc=%d, buffer=%p, ids=%p) zebStatRc=%d\n",
      socketDesc, buffer, ids, rc);
  return rc;
}

int commsStatIdsByStatGroupId(int socketDesc, char* buffer, const char* ids) noexcept {
  TRACE_ENTRY(4110,
              "stapi_zeb_statquery.commsStatIdsByStatGroupId(socketDesc=%d, buffer=%p, ids=%p)\n",
              socketDesc, buffer, ids);
  const int rc = ask({"commsStatIdsByStatGroupId", 4117}, socketDesc, STATS_MBEAN_ACTION_STAT_IDS,
                     ids, buffer);
  TRACE_EXIT(
      4111,
      "stapi_zeb_statquery.commsStatIdsByStatGroupId(socketDesc=%d, buffer=%p, ids=%p) zebStatRc=%d\n",
      socketDesc, buffer, ids, rc);
  return rc;
}
