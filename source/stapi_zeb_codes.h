// The text of each public code, in words that fit after a colon. The public header and the manual
// repeat the texts, and tests compare them.
#ifndef STAPI_ZEB_CODES_H
#define STAPI_ZEB_CODES_H

#include "zebstats.h"

namespace zeb {

struct CodeText {
  int code;
  const char* text;
};

constexpr CodeText kCodeTexts[] = {
    {ZEB_OK, "no error"},
    {ZEB_TOKEN_NULL, "not connected"},
    {ZEB_TOKEN_UNKNOWN, "the connection is not open any more"},
    {ZEB_CONNECTION_LOST, "the connection to the gateway was lost"},
    {ZEB_BUFFER_NULL, "an internal buffer is missing"},
    {ZEB_TRACE_LEVEL_INVALID, "the trace level is outside 0 to 5"},
    {ZEB_VERSION_POINTER_NULL, "no address was given for the protocol version"},
    {ZEB_NOT_A_COPY, "only copies of result sets can be freed"},
    {ZEB_PORT_INVALID, "the port is outside 1 to 65535"},
    {ZEB_TOKEN_POINTER_NULL, "no address was given for the connection"},
    {ZEB_OUTPUT_POINTER_NULL, "no address was given for the result"},
    {ZEB_NO_RESULT_SET_BUFFER, "the result set has no buffer; its connection may be gone"},
    {ZEB_NO_MEMORY, "out of memory"},
    {ZEB_END_OF_RESULTS, "the results have ended"},
    {ZEB_TOKEN_LIST_CORRUPT, "256 connections are open, or their list is corrupt"},
    {ZEB_OWNER_INVALID, "an internal result set was given an unknown owner"},
    {ZEB_CONNECT_FAILED, "connecting failed"},
    {ZEB_WRONG_CONTENT, "the result set holds no answer of this kind"},
    {ZEB_TRACE_LOCK_FAILED, "the trace lock could not be initialised"},
    {ZEB_COMMUNICATION_FAILED, "the gateway did not answer as agreed"},
    {ZEB_OTHER_PROCESS, "the connection belongs to another process"},
    {ZEB_OTHER_THREAD, "the connection belongs to another thread"},
    {ZEB_RESULT_SET_POINTER_NULL, "no address was given for the result set"},
    {ZEB_QUERY_NULL, "no query was given"},
    {ZEB_RESULT_SET_NULL, "there is no result set"},
    {ZEB_ID_DATA_NULL, "no record was given for the id"},
    {ZEB_STAT_DATA_NULL, "no record was given for the statistic"},
    {ZEB_TRACE_FILE_FAILED, "the trace file could not be opened for append"},
    {ZEB_NO_GOOD_ID, "the result set holds no good id"},
    {ZEB_HOST_UNKNOWN, "the host name could not be resolved"},
    {ZEB_HOST_NULL, "no host name was given"},
    {ZEB_CONNECT_TIMED_OUT, "connecting timed out"},
    {ZEB_CONNECT_REFUSED, "the gateway refused the connection"},
    {ZEB_NETWORK_UNREACHABLE, "the network is unreachable"},
    {ZEB_TIMEOUT_INVALID, "the timeout is negative"},
    {ZEB_TIMED_OUT, "the gateway did not answer in time"},
    {ZEB_QUERY_TOO_LONG,
     "the query has 32,766 characters or more, or a lock could not be initialised"},
};

// Returns the text of a code, or "unknown code" for any other number. The text is static and never
// null.
constexpr const char* codeText(int code) noexcept {
  for (const CodeText& known : kCodeTexts) {
    if (known.code == code) return known.text;
  }
  return "unknown code";
}

}  // namespace zeb

#endif
