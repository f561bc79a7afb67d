// zebstats.hpp: the calls of zebstats.h for C++17 programs. Header only, throws nothing, needs no exceptions.
//
//     zebstats::Connection gateway;
//     if (zebstats::Error failed = gateway.open("127.0.0.1", 2980)) return fail(failed.text());
//     zebstats::StatSet answer = gateway.stats();
//     for (const zebstats::Stat& stat : answer)
//       if (stat.ok()) std::cout << stat.id << " = " << stat.value << '\n';
//     if (answer.error()) return fail(answer.error().text());
//
// Every rule of zebstats.h holds here too. Those about life time are kept this way:
//
//   Connection      closes itself. It can be moved, not copied; a moved-from one is not open. In a forked child
//                   it forgets the gateway instead of closing it, which would end its parent's session.
//   StatSet, IdSet  views of the connection's one answer, good until the next query on it. They know which
//                   query they belong to: used after another query, or after the connection has been closed or
//                   lost, they fail an assertion, and with NDEBUG end the walk with an error. They can not be
//                   taken from a temporary connection: that does not compile.
//   StatSetCopy,    own their answer, and outlive query, connection and thread.
//   IdSetCopy
//   Stat, Id        are good as long as the answer is, and overwritten by the next step of the walk. Their
//                   texts are views too: std::string(stat.value) keeps one.
//
// One answer has one walk: begin() starts it again, also for other views of the same answer.
#ifndef ZEBSTATS_HPP
#define ZEBSTATS_HPP

#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <new>
#include <string_view>
#include <utility>

#include "zebstats.h"

namespace zebstats {

// ---- Errors -------------------------------------------------------------------------------------------------

// What a code of the library means, in words that fit behind a colon.
struct Meaning {
  int code;
  const char* text;
};

inline constexpr Meaning kMeanings[] = {
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
    {ZEB_NO_RESULT_SET_BUFFER, "the result set has no buffer"},
    {ZEB_NO_MEMORY, "out of memory"},
    {ZEB_END_OF_RESULTS, "the results have ended"},
    {ZEB_TOKEN_LIST_CORRUPT, "the list of connections is corrupt or too long"},
    {ZEB_OWNER_INVALID, "an internal result set was asked for with an unknown owner"},
    {ZEB_CONNECT_FAILED, "connecting failed"},
    {ZEB_WRONG_CONTENT, "the result set holds no answer of this kind"},
    {ZEB_TRACE_LOCK_FAILED, "a lock of the library could not be initialised"},
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
    {ZEB_QUERY_TOO_LONG, "the query has 32,766 characters or more"},
};

constexpr const char* describe(int code) noexcept {
  for (const Meaning& meaning : kMeanings) {
    if (meaning.code == code) return meaning.text;
  }
  return "unknown code";
}

// A code of the library, true where it tells of a failure.
class Error {
 public:
  constexpr Error() noexcept = default;
  constexpr explicit Error(int code) noexcept : code_(code) {}
  constexpr explicit operator bool() const noexcept { return code_ != ZEB_OK; }
  [[nodiscard]] constexpr int code() const noexcept { return code_; }
  [[nodiscard]] constexpr const char* text() const noexcept { return describe(code_); }

 private:
  int code_ = ZEB_OK;
};

// ---- Entries of an answer -----------------------------------------------------------------------------------

// The id of one statistic or resource group. Where the gateway could not answer an element of the query, ok()
// is false, elementCode tells the gateway's reason (it is none of the library's codes), and id is empty.
struct Id {
  std::string_view element;
  int elementCode = 0;
  std::string_view id;
  [[nodiscard]] bool ok() const noexcept { return elementCode >= 0; }
};

// One statistic, likewise.
struct Stat : Id {
  std::string_view value;
};

namespace detail {

inline std::string_view view(const char* text, int length) noexcept {
  return length > 0 ? std::string_view(text, static_cast<std::size_t>(length)) : std::string_view();
}

inline int step(ResultSetToken* token, bool first, Id& id) noexcept {
  IdData data;
  const int rc = first ? getFirstId(token, &data) : getNextId(token, &data);
  if (rc != ZEB_OK) return rc;
  id = Id{view(data.queryElementPtr, data.queryElementLen), data.queryElementRC, {}};
  if (id.ok()) id.id = view(data.idPtr, data.idLen);
  return ZEB_OK;
}

inline int step(ResultSetToken* token, bool first, Stat& stat) noexcept {
  StatData data;
  const int rc = first ? getFirstStat(token, &data) : getNextStat(token, &data);
  if (rc != ZEB_OK) return rc;
  stat = Stat{{view(data.queryElementPtr, data.queryElementLen), data.queryElementRC, {}}, {}};
  if (!stat.ok()) return ZEB_OK;
  stat.id = view(data.statIdPtr, data.statIdLen);
  stat.value = view(data.statValuePtr, data.statValueLen);
  return ZEB_OK;
}

// What a connection and its views share: a view may outlive the connection, and finds out here.
struct Session {
  GatewayToken* gateway = nullptr;  // null once closed or lost
  std::uint64_t query = 0;          // the number of the latest query
  pid_t process = getpid();
  std::atomic<unsigned> users{1};
};

class SessionRef {
 public:
  SessionRef() noexcept = default;
  explicit SessionRef(Session* session) noexcept : session_(session) {}
  SessionRef(const SessionRef& other) noexcept : session_(other.session_) {
    if (session_ != nullptr) ++session_->users;
  }
  SessionRef(SessionRef&& other) noexcept : session_(std::exchange(other.session_, nullptr)) {}
  SessionRef& operator=(SessionRef other) noexcept {
    std::swap(session_, other.session_);
    return *this;
  }
  ~SessionRef() {
    if (session_ != nullptr && --session_->users == 0) delete session_;
  }
  Session* operator->() const noexcept { return session_; }
  explicit operator bool() const noexcept { return session_ != nullptr; }

 private:
  Session* session_ = nullptr;
};

}  // namespace detail

// ---- Answers ------------------------------------------------------------------------------------------------

template <typename Entry>
class ResultSetCopy;

// What views and copies have in common: one pass of a range-for, and why it ended.
template <typename Entry>
class Walk {
 public:
  class iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = const Entry*;
    using reference = const Entry&;

    iterator() noexcept = default;
    reference operator*() const noexcept { return walk_->entry_; }
    pointer operator->() const noexcept { return &walk_->entry_; }
    iterator& operator++() noexcept {
      walk_ = walk_->advance(false);
      return *this;
    }
    void operator++(int) noexcept { ++*this; }
    friend bool operator==(iterator a, iterator b) noexcept { return a.walk_ == b.walk_; }
    friend bool operator!=(iterator a, iterator b) noexcept { return a.walk_ != b.walk_; }

   private:
    friend class Walk;
    explicit iterator(Walk* walk) noexcept : walk_(walk) {}
    Walk* walk_ = nullptr;
  };

  // Starts the walk from the beginning. The set must stay where it is as long as the walk goes on.
  [[nodiscard]] iterator begin() & noexcept { return iterator(advance(true)); }
  [[nodiscard]] iterator end() & noexcept { return iterator(); }

  // Why there is no answer, or why the walk ended early. None while it goes on and after its normal end.
  [[nodiscard]] Error error() const noexcept { return Error(code_ == ZEB_END_OF_RESULTS ? ZEB_OK : code_); }
  // Whether the walk has come to its normal end.
  [[nodiscard]] bool ended() const noexcept { return code_ == ZEB_END_OF_RESULTS; }

  // An owned copy, whose walk has not begun; ask its error().
  [[nodiscard]] ResultSetCopy<Entry> copy() const noexcept;

  // Joins the good ids into a query for statsByIds() or idsByGroups(), NUL-terminated. It lies in the answer
  // and ends its walk.
  [[nodiscard]] Error idQuery(const char*& query) & noexcept {
    char* joined = nullptr;
    int rc = check();
    if (rc == ZEB_OK) rc = getIdQuery(token_, &joined);
    if (rc == ZEB_OK) query = joined;
    return Error(rc);
  }

  // For calls of zebstats.h; null where there is no answer any more.
  [[nodiscard]] ResultSetToken* handle() const noexcept { return check() == ZEB_OK ? token_ : nullptr; }

 protected:
  Walk() noexcept = default;
  Walk(ResultSetToken* token, int code, detail::SessionRef session = {}) noexcept
      : token_(token), code_(code), session_(std::move(session)), query_(session_ ? session_->query : 0) {}

  // Whether the answer is there still.
  [[nodiscard]] int check() const noexcept {
    if (token_ == nullptr) return code_ != ZEB_OK ? code_ : ZEB_RESULT_SET_NULL;
    if (!session_) return ZEB_OK;
    assert(session_->gateway != nullptr && "a result set is used after its connection was closed or lost");
    if (session_->gateway == nullptr) return ZEB_TOKEN_UNKNOWN;
    assert(session_->query == query_ && "a result set is used after another query on its connection");
    return session_->query == query_ ? ZEB_OK : ZEB_WRONG_CONTENT;
  }

  Walk* advance(bool first) noexcept {
    code_ = check();
    if (code_ == ZEB_OK) code_ = detail::step(token_, first, entry_);
    return code_ == ZEB_OK ? this : nullptr;
  }

  ResultSetToken* token_ = nullptr;
  int code_ = ZEB_RESULT_SET_NULL;
  detail::SessionRef session_;  // none where the answer is a copy
  std::uint64_t query_ = 0;
  Entry entry_;
};

// A view of a connection's answer.
template <typename Entry>
class ResultSet : public Walk<Entry> {
 public:
  ResultSet() noexcept = default;

 private:
  friend class Connection;
  using Walk<Entry>::Walk;
};

// An answer of one's own; can be moved, not copied but by copy().
template <typename Entry>
class ResultSetCopy : public Walk<Entry> {
 public:
  ResultSetCopy() noexcept = default;
  ResultSetCopy(ResultSetCopy&& other) noexcept
      : Walk<Entry>(std::exchange(other.token_, nullptr), std::exchange(other.code_, ZEB_RESULT_SET_NULL)) {}
  ResultSetCopy& operator=(ResultSetCopy&& other) noexcept {
    std::swap(this->token_, other.token_);
    std::swap(this->code_, other.code_);
    return *this;
  }
  ~ResultSetCopy() {
    if (this->token_ != nullptr) freeResultSet(&this->token_);
  }

 private:
  friend class Walk<Entry>;
  using Walk<Entry>::Walk;
};

template <typename Entry>
ResultSetCopy<Entry> Walk<Entry>::copy() const noexcept {
  ResultSetToken* token = nullptr;
  int rc = check();
  if (rc == ZEB_OK) rc = copyResultSet(token_, &token);
  if (rc != ZEB_OK && token != nullptr) freeResultSet(&token);
  return ResultSetCopy<Entry>(token, rc);
}

using StatSet = ResultSet<Stat>;
using IdSet = ResultSet<Id>;
using StatSetCopy = ResultSetCopy<Stat>;
using IdSetCopy = ResultSetCopy<Id>;

// ---- Connections --------------------------------------------------------------------------------------------

// One connection to a gateway, for the thread that opens it. Texts are NUL-terminated, ids separated by ':'.
class Connection {
 public:
  Connection() noexcept = default;
  Connection(Connection&& other) noexcept
      : session_(std::move(other.session_)), version_(std::exchange(other.version_, nullptr)) {}
  Connection& operator=(Connection&& other) noexcept {
    if (this != &other) {
      close();
      session_ = std::move(other.session_);
      version_ = std::exchange(other.version_, nullptr);
    }
    return *this;
  }
  ~Connection() { close(); }

  // Opens a connection, after closing the one that was open. Blocks without limit.
  [[nodiscard]] Error open(const char* host, int port) noexcept {
    close();
    detail::SessionRef session(new (std::nothrow) detail::Session);
    if (!session) return Error(ZEB_NO_MEMORY);
    const int rc = openRemoteGatewayConnection(host, port, &session->gateway, &version_);
    if (rc == ZEB_OK) session_ = std::move(session);
    return Error(rc);
  }

  // Tells the gateway and waits for its answer. No error where nothing is open.
  Error close() noexcept {
    GatewayToken* gateway = release();
    return Error(gateway != nullptr ? closeGatewayConnection(&gateway) : ZEB_OK);
  }

  // Lets go of the connection without closing it. Null where none is open, and in a forked child.
  GatewayToken* release() noexcept {
    GatewayToken* gateway = handle();
    const bool own = gateway != nullptr && session_->process == getpid();
    if (session_) session_->gateway = nullptr;
    session_ = detail::SessionRef();
    std::free(std::exchange(version_, nullptr));
    return own ? gateway : nullptr;
  }

  [[nodiscard]] bool isOpen() const noexcept { return handle() != nullptr; }
  // For calls of zebstats.h. A query made with it goes unnoticed by the views.
  [[nodiscard]] GatewayToken* handle() const noexcept { return session_ ? session_->gateway : nullptr; }
  // Empty where none is known.
  [[nodiscard]] const char* protocolVersion() const& noexcept { return version_ != nullptr ? version_ : ""; }
  const char* protocolVersion() const&& = delete;

  // Each asks the gateway, waits for the answer without limit, and ends the life of the answer before it. Not
  // for temporary connections (the &): their answers would not outlive the statement.
  [[nodiscard]] StatSet stats() & noexcept { return ask<Stat>(getStats); }
  [[nodiscard]] StatSet statsByIds(const char* ids) & noexcept { return ask<Stat>(getStatsByStatId, ids); }
  [[nodiscard]] StatSet statsByGroups(const char* ids) & noexcept {
    return ask<Stat>(getStatsByStatGroupId, ids);
  }
  [[nodiscard]] IdSet ids() & noexcept { return ask<Id>(getStatIds); }
  [[nodiscard]] IdSet idsByGroups(const char* ids) & noexcept {
    return ask<Id>(getStatIdsByStatGroupId, ids);
  }
  [[nodiscard]] IdSet groups() & noexcept { return ask<Id>(getResourceGroupIds); }

 private:
  template <typename Entry, typename Call, typename... Text>
  ResultSet<Entry> ask(Call call, Text... text) noexcept {
    if (!isOpen()) return ResultSet<Entry>(nullptr, ZEB_TOKEN_NULL);
    ResultSetToken* token = nullptr;
    ++session_->query;
    const int rc = call(session_->gateway, text..., &token);
    if (rc == ZEB_OK) return ResultSet<Entry>(token, rc, session_);
    const bool gone = rc == ZEB_CONNECTION_LOST || rc == ZEB_COMMUNICATION_FAILED || rc == ZEB_TOKEN_UNKNOWN;
    if (gone) session_->gateway = nullptr;
    return ResultSet<Entry>(nullptr, rc);
  }

  detail::SessionRef session_;
  char* version_ = nullptr;
};

// ---- Library and trace --------------------------------------------------------------------------------------

// Empty while the library has not managed to start.
inline const char* apiVersion() noexcept {
  char* version = nullptr;
  return getStatsAPIVersion(&version) == ZEB_OK ? version : "";
}

inline Error setTraceLevel(int level) noexcept {
  return Error(setAPITraceLevel(level));
}
// Null: standard error.
inline Error setTraceFile(const char* path) noexcept {
  return Error(setAPITraceFile(path));
}

}  // namespace zebstats

#endif  // ZEBSTATS_HPP
