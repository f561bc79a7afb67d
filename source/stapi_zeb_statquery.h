// The six queries.
#ifndef STAPI_ZEB_STATQUERY_H
#define STAPI_ZEB_STATQUERY_H

#include "zebstats_private.h"

// Each asks its question and stores the answer in buffer, which has kResultSetBufferSize bytes; ids
// is the query string. Returns 0, ZEB_BUFFER_NULL, ZEB_CONNECTION_LOST, or
// ZEB_COMMUNICATION_FAILED.
ZEB_INTERNAL int commsStats(int socketDesc, char* buffer) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsStatIds(int socketDesc, char* buffer) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsResourceGroupsIds(int socketDesc, char* buffer) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsStatsByStatGroupId(int socketDesc, char* buffer,
                                         const char* ids) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsStatsByStatId(int socketDesc, char* buffer, const char* ids) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsStatIdsByStatGroupId(int socketDesc, char* buffer,
                                           const char* ids) ZEB_NOEXCEPT;

#endif
