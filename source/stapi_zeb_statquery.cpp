// The six questions: each traces its entry and exit, and ask() does the rest.
//
// Programs parse the texts of the trace points, so oddities in them stay as they are.

#include "stapi_zeb_statquery.h"

#include "stapi_zeb_diag.h"
#include "stapi_zeb_protocol.h"
#include "stapi_zeb_socketcomms.h"
#include "stapi_zeb_statcomms.h"
#include "stapi_zeb_version.h"

extern "C" {
extern const char stapi_zeb_statquery_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_statquery_notice[] = ZEB_NOTICE("stapi_zeb_statquery");
}

namespace zeb {
namespace {

// Operations of the statistics bean.
constexpr char STATS_MBEAN_ACTION_STAT_IDS[] = "STAT_IDS";
constexpr char STATS_MBEAN_ACTION_RESOURCE_GROUPS[] = "RESOURCE_GROUPS";

// A question: its function, as it is traced, and the operation that it invokes. The gateway sees
// from the query itself whether its ids are those of statistics or of groups.
struct Question {
  const char* function;
  const char* operation;
  int answerPoint;
};
constexpr Question kStats = {
    .function = "commsStats", .operation = STATS_MBEAN_ACTION_GET_STATS, .answerPoint = 4112};
constexpr Question kStatIds = {
    .function = "commsStatIds", .operation = STATS_MBEAN_ACTION_STAT_IDS, .answerPoint = 4113};
constexpr Question kResourceGroups = {.function = "commsResourceGroupsIds",
                                      .operation = STATS_MBEAN_ACTION_RESOURCE_GROUPS,
                                      .answerPoint = 4114};
constexpr Question kStatsByGroup = {.function = "commsStatsByStatGroupId",
                                    .operation = STATS_MBEAN_ACTION_GET_STATS,
                                    .answerPoint = 4115};
constexpr Question kStatsById = {.function = "commsStatsByStatId",
                                 .operation = STATS_MBEAN_ACTION_GET_STATS,
                                 .answerPoint = 4116};
constexpr Question kStatIdsByGroup = {.function = "commsStatIdsByStatGroupId",
                                      .operation = STATS_MBEAN_ACTION_STAT_IDS,
                                      .answerPoint = 4117};

int mapExchangeCode(int rc, const reasons& failure) noexcept {
  if (rc == 0) return 0;
  return isConnectionLost(rc, failure) ? ZEB_CONNECTION_LOST : ZEB_COMMUNICATION_FAILED;
}

// ids is null for a question without a query.
int exchange(const Question& question, int socketDesc, const char* ids, char* buffer) noexcept {
  reasons failure = {};
  const int rc = ids == nullptr
                     ? statComms(socketDesc, question.operation, buffer, &failure)
                     : statCommsString(socketDesc, question.operation, ids, buffer, &failure);
  return mapExchangeCode(rc, failure);
}

int ask(const Question& question, int socketDesc, const char* ids, char* buffer) noexcept {
  const bool isNull = buffer == nullptr;
  const int rc = isNull ? ZEB_BUFFER_NULL : exchange(question, socketDesc, ids, buffer);
  // quirk: the line of an answer is also written for a missing buffer
  if (rc == 0 || isNull) {
    TRACE_DATA(
        question.answerPoint, "stapi_zeb_statquery.%s",
        (TracedStorage{
            .address = buffer, .length = 0, .stopWord = kTerminator, .size = kResultSetBufferSize}),
        kTerminator, question.function);
  }
  return rc;
}

}  // namespace
}  // namespace zeb

using namespace zeb;

int commsStats(int socketDesc, char* buffer) noexcept {
  TRACE_ENTRY(4100, "stapi_zeb_statquery.commsStats(socketDesc=%d, buffer=%p)\n", socketDesc,
              buffer);
  const int rc = ask(kStats, socketDesc, nullptr, buffer);
  TRACE_EXIT(4101, "stapi_zeb_statquery.commsStats(socketDesc=%d, buffer=%p) zebstatRc=%d\n",
             socketDesc, buffer, rc);
  return rc;
}

int commsStatIds(int socketDesc, char* buffer) noexcept {
  TRACE_ENTRY(4102, "stapi_zeb_statquery.commsStatIds(socketDesc=%d, buffer=%p)\n", socketDesc,
              buffer);
  const int rc = ask(kStatIds, socketDesc, nullptr, buffer);
  TRACE_EXIT(4103, "stapi_zeb_statquery.commsStatIds(socketDesc=%d, buffer=%p) zebstatRc=%d\n",
             socketDesc, buffer, rc);
  return rc;
}

int commsResourceGroupsIds(int socketDesc, char* buffer) noexcept {
  TRACE_ENTRY(4104, "stapi_zeb_statquery.commsResourceGroupsIds(socketDesc=%d, buffer=%p)\n",
              socketDesc, buffer);
  const int rc = ask(kResourceGroups, socketDesc, nullptr, buffer);
  TRACE_EXIT(4105,
             "stapi_zeb_statquery.commsResourceGroupsIds(socketDesc=%d, buffer=%p) zebstatRc=%d\n",
             socketDesc, buffer, rc);
  return rc;
}

// quirk: the EXIT lines say zebstatRc without ids (above) and zebStatRc with ids (below)

int commsStatsByStatGroupId(int socketDesc, char* buffer, const char* ids) noexcept {
  TRACE_ENTRY(4106,
              "stapi_zeb_statquery.commsStatsByStatGroupId(socketDesc=%d, buffer=%p, ids=%p)\n",
              socketDesc, buffer, ids);
  const int rc = ask(kStatsByGroup, socketDesc, ids, buffer);
  TRACE_EXIT(
      4107,
      "stapi_zeb_statquery.commsStatsByStatGroupId(socketDesc=%d, buffer=%p, ids=%p) zebStatRc=%d\n",
      socketDesc, buffer, ids, rc);
  return rc;
}

int commsStatsByStatId(int socketDesc, char* buffer, const char* ids) noexcept {
  TRACE_ENTRY(4108, "stapi_zeb_statquery.commsStatsByStatId(socketDesc=%d, buffer=%p, ids=%p)\n",
              socketDesc, buffer, ids);
  const int rc = ask(kStatsById, socketDesc, ids, buffer);
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
  const int rc = ask(kStatIdsByGroup, socketDesc, ids, buffer);
  TRACE_EXIT(
      4111,
      "stapi_zeb_statquery.commsStatIdsByStatGroupId(socketDesc=%d, buffer=%p, ids=%p) zebStatRc=%d\n",
      socketDesc, buffer, ids, rc);
  return rc;
}
