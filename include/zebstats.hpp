// zebstats.hpp: the calls of zebstats.h for C++17 programs. Header only, throws nothing, needs no
// exceptions.
//
//     if (zebstats::Error failed = zebstats::setTimeout(5000)) return fail(failed.text());
//     zebstats::Connection gateway;
//     if (zebstats::Error failed = gateway.open("127.0.0.1", 2980)) return fail(failed.text());
//     zebstats::StatSet answer = gateway.stats();
//     for (const zebstats::Stat& stat : answer)
//       if (stat.ok()) std::cout << stat.id << " = " << stat.value << '\n';
//     if (answer.error()) return fail(answer.error().text());
//
// The rules of zebstats.h hold here too. The classes see to lifetimes:
//
//   Connection      closes itself when it is destroyed. It can be moved, not copied; after a move
//                   the source is not open. In a forked child it sends nothing when it closes.
//   StatSet, IdSet  are views of the one answer of a connection, and end with its next query. If a
//                   view is used after that, or after its connection was closed or lost, an
//                   assertion fails; with NDEBUG the walk ends, and error() returns the reason. A
//                   query on a temporary connection does not compile, as its view would be invalid.
//   StatSetCopy,    own their answer, which outlives the next query, the connection and its thread.
//   IdSetCopy
//   Stat, Id        are parts of the set that is walked, and the next step overwrites them. Their
//                   texts are views of the answer: std::string(stat.value) makes a copy that stays.
//
// An answer has one walk: begin() starts it again, also for other views of the same answer.
#ifndef ZEBSTATS_HPP
#define ZEBSTATS_HPP

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

// ---- Errors -------------------------------------------------------------------------------------

// English text of each code of the library, without a full stop; never null.
inline const char* describe(int code) noexcept {
  return getAPICodeText(code);
}

// A code of the library. As a condition it is true if the call has failed.
class Error {
 public:
  constexpr Error() noexcept = default;
  constexpr explicit Error(int code) noexcept : code_(code) {}
  constexpr explicit operator bool() const noexcept { return code_ != ZEB_OK; }
  [[nodiscard]] constexpr int code() const noexcept { return code_; }
  [[nodiscard]] const char* text() const noexcept { return describe(code_); }

 private:
  int code_ = ZEB_OK;
};

// ---- Entries of an answer -----------------------------------------------------------------------

// The id of one statistic or resource group. If the gateway could not answer an element of the
// query, there is one entry for it, with ok() false and an empty id.
struct Id {
  std::string_view element;  // the element of the query that this entry answers
  int elementCode = 0;       // the gateway's code for that element, not one of the library
  std::string_view id;
  [[nodiscard]] bool ok() const noexcept { return elementCode >= 0; }
};

// One statistic. If ok() is false, value is empty too.
struct Stat : Id {
  std::string_view value;
};

namespace detail {

inline std::string_view view(const char* text, int length) noexcept {
  return length > 0 ? std::string_view(text, static_cast<std::size_t>(length)) : std::string_view();
}

// Each makes one step of a walk, starting it again if first is true, and stores the entry. They
// return the codes of getFirstId() and getFirstStat().
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

// What a connection shares with its views, so that a view notices that its answer is gone. Views
// may be destroyed in any thread; the rest is for the thread of the connection.
struct Session {
  GatewayToken* gateway = nullptr;  // null after the connection was closed or lost
  std::uint64_t query = 0;          // how many queries have been made
  std::atomic<unsigned> users{1};
};

// A counted reference to a Session, or to none. The first one takes over a new Session.
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

// ---- Answers ------------------------------------------------------------------------------------

template <typename Entry>
class ResultSetCopy;

// Base of views and copies: the walk of an answer, as a range of Entry (Stat or Id), and the code
// of its last step.
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

  // Starts the walk from the beginning and reads the first entry. The set must not be moved during
  // the walk, because its iterators point to it.
  [[nodiscard]] iterator begin() & noexcept { return iterator(advance(true)); }
  [[nodiscard]] iterator end() & noexcept { return iterator(); }

  // The reason why there is no answer, or why the walk has ended early. No error before and during
  // the walk, and after its normal end.
  [[nodiscard]] Error error() const noexcept {
    return Error(code_ == ZEB_END_OF_RESULTS ? ZEB_OK : code_);
  }
  [[nodiscard]] bool ended() const noexcept { return code_ == ZEB_END_OF_RESULTS; }

  // Returns a copy that owns its answer and whose walk has not begun. If copying fails, the copy is
  // empty, and its error() is the reason.
  [[nodiscard]] ResultSetCopy<Entry> copy() const noexcept;

  // Joins the good ids, as getIdQuery() does, into a NUL-terminated query for a later call. The
  // text belongs to the answer, and the next idQuery() overwrites it. Ends the walk.
  [[nodiscard]] Error idQuery(const char*& query) & noexcept {
    char* joined = nullptr;
    int rc = check();
    if (rc == ZEB_OK) rc = getIdQuery(token_, &joined);
    if (rc == ZEB_OK) query = joined;
    return Error(rc);
  }

  // Returns the token for calls of zebstats.h, which must not free it; null if the answer no longer
  // exists.
  [[nodiscard]] ResultSetToken* handle() const noexcept {
    return check() == ZEB_OK ? token_ : nullptr;
  }

 protected:
  Walk() noexcept = default;
  Walk(ResultSetToken* token, int code, detail::SessionRef session = {}) noexcept
      : token_(token),
        code_(code),
        session_(std::move(session)),
        query_(session_ ? session_->query : 0) {}

  // Returns ZEB_OK if the answer still exists, otherwise the code for its absence.
  [[nodiscard]] int check() const noexcept {
    if (token_ == nullptr) return code_ != ZEB_OK ? code_ : ZEB_RESULT_SET_NULL;
    if (!session_) return ZEB_OK;
    assert(session_->gateway != nullptr &&
           "a result set is used after its connection was closed or lost");
    if (session_->gateway == nullptr) return ZEB_TOKEN_UNKNOWN;
    assert(session_->query == query_ &&
           "a result set is used after another query on its connection");
    return session_->query == query_ ? ZEB_OK : ZEB_WRONG_CONTENT;
  }

  // Returns what an iterator points to: this walk, or null at the end.
  Walk* advance(bool first) noexcept {
    code_ = check();
    if (code_ == ZEB_OK) code_ = detail::step(token_, first, entry_);
    return code_ == ZEB_OK ? this : nullptr;
  }

  ResultSetToken* token_ = nullptr;
  int code_ = ZEB_RESULT_SET_NULL;  // of the query or copy, then of the last step
  detail::SessionRef session_;      // of a view; a copy has none
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

// A copy of an answer, which it owns. It can be moved; copy() makes another one.
template <typename Entry>
class ResultSetCopy : public Walk<Entry> {
 public:
  ResultSetCopy() noexcept = default;
  ResultSetCopy(ResultSetCopy&& other) noexcept
      : Walk<Entry>(std::exchange(other.token_, nullptr),
                    std::exchange(other.code_, ZEB_RESULT_SET_NULL)) {}
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
  // After ZEB_NO_MEMORY there may be a token all the same.
  if (rc != ZEB_OK && token != nullptr) freeResultSet(&token);
  return ResultSetCopy<Entry>(token, rc);
}

using StatSet = ResultSet<Stat>;
using IdSet = ResultSet<Id>;
using StatSetCopy = ResultSetCopy<Stat>;
using IdSetCopy = ResultSetCopy<Id>;

// ---- Connections --------------------------------------------------------------------------------

// One connection to a gateway, for use in the thread that opens it. Texts that are passed to it are
// NUL-terminated; the ids of a query are separated by ':'.
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

  // Closes the connection, if one is open, then opens another. The timeout bounds each of the two.
  [[nodiscard]] Error open(const char* host, int port) noexcept {
    close();
    detail::SessionRef session(new (std::nothrow) detail::Session);
    if (!session) return Error(ZEB_NO_MEMORY);
    const int rc = openRemoteGatewayConnection(host, port, &session->gateway, &version_);
    if (rc == ZEB_OK) session_ = std::move(session);
    return Error(rc);
  }

  // Tells the gateway, waits for its answer, at most for the timeout, and closes the connection. It
  // is no error if none is open.
  Error close() noexcept {
    GatewayToken* gateway = release();
    return Error(gateway != nullptr ? closeGatewayConnection(&gateway) : ZEB_OK);
  }

  // Hands the open connection over to the caller, who closes it with closeGatewayConnection(). The
  // views of its answer become invalid. Returns null if none is open.
  GatewayToken* release() noexcept {
    GatewayToken* gateway = handle();
    if (session_) session_->gateway = nullptr;
    session_ = detail::SessionRef();
    std::free(std::exchange(version_, nullptr));
    return gateway;
  }

  [[nodiscard]] bool isOpen() const noexcept { return handle() != nullptr; }
  // Returns the token for calls of zebstats.h, null if none is open. Do not make queries with it:
  // the views of an earlier answer would not notice them.
  [[nodiscard]] GatewayToken* handle() const noexcept {
    return session_ ? session_->gateway : nullptr;
  }
  // The gateway's protocol version, valid while the connection is open; empty if it is not known.
  [[nodiscard]] const char* protocolVersion() const& noexcept {
    return version_ != nullptr ? version_ : "";
  }
  const char* protocolVersion() const&& = delete;

  // The queries. Each waits for the answer, at most for the timeout, and returns a view of it; ask
  // its error(). A query invalidates the view of the previous answer, even if it fails. The &
  // excludes temporary connections, with which the answer would end at once.
  [[nodiscard]] StatSet stats() & noexcept { return ask<Stat>(getStats); }
  [[nodiscard]] StatSet statsByIds(const char* ids) & noexcept {
    return ask<Stat>(getStatsByStatId, ids);
  }
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
    // With these codes the library has removed the connection, or did not know it any more.
    const bool isGone = rc == ZEB_CONNECTION_LOST || rc == ZEB_TIMED_OUT ||
                        rc == ZEB_COMMUNICATION_FAILED || rc == ZEB_TOKEN_UNKNOWN;
    if (isGone) session_->gateway = nullptr;
    return ResultSet<Entry>(nullptr, rc);
  }

  detail::SessionRef session_;
  char* version_ = nullptr;
};

// ---- Library and trace --------------------------------------------------------------------------

// The version of the library's interface; empty if the library could not be initialised.
inline const char* apiVersion() noexcept {
  char* version = nullptr;
  return getStatsAPIVersion(&version) == ZEB_OK ? version : "";
}

// Bounds each later open, query and close, in any thread; 0, the value at the start, is no limit.
inline Error setTimeout(int milliseconds) noexcept {
  return Error(setAPITimeout(milliseconds));
}
inline int timeout() noexcept {
  int milliseconds = 0;
  (void)getAPITimeout(&milliseconds);
  return milliseconds;
}

inline Error setTraceLevel(int level) noexcept {
  return Error(setAPITraceLevel(level));
}
// Appends the trace to a file, or with null writes it to standard error.
inline Error setTraceFile(const char* path) noexcept {
  return Error(setAPITraceFile(path));
}

}  // namespace zebstats

#endif  // ZEBSTATS_HPP
