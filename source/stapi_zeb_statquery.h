// The six questions that can be asked of a gateway, one function for each.
#ifndef STAPI_ZEB_STATQUERY_H
#define STAPI_ZEB_STATQUERY_H

#include "zebstats_private.h"

// Each asks the gateway at socketDesc, waits for the answer and parses it into buffer, which has
// kResultSetBufferSize bytes; an answer that cannot be parsed leaves it empty and is no failure.
// ids is a NUL-terminated query, ids separated by ':', which is sent unchanged; null stands for an
// empty one. Returns 0, ZEB_BUFFER_NULL (no buffer: nothing is sent), ZEB_CONNECTION_LOST, or
// ZEB_COMMUNICATION_FAILED (any other failure). After a failure the buffer keeps its content.

// All statistics.
ZEB_INTERNAL int commsStats(int socketDesc, char* buffer) ZEB_NOEXCEPT;
// The ids of all statistics.
ZEB_INTERNAL int commsStatIds(int socketDesc, char* buffer) ZEB_NOEXCEPT;
// The ids of the resource groups.
ZEB_INTERNAL int commsResourceGroupsIds(int socketDesc, char* buffer) ZEB_NOEXCEPT;
// The statistics of the resource groups in ids.
ZEB_INTERNAL int commsStatsByStatGroupId(int socketDesc, char* buffer,
                                         const char* ids) ZEB_NOEXCEPT;
// The statistics whose ids are in ids.
ZEB_INTERNAL int commsStatsByStatId(int socketDesc, char* buffer, const char* ids) ZEB_NOEXCEPT;
// The ids of the statistics of the resource groups in ids.
ZEB_INTERNAL int commsStatIdsByStatGroupId(int socketDesc, char* buffer,
                                           const char* ids) ZEB_NOEXCEPT;

#endif
