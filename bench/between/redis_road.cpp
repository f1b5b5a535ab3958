// SPDX-License-Identifier: Apache-2.0
// As a competent user would write it: what can be sent together is pipelined, replies that nobody waits for
// are read when the next ones are, and the acknowledgement's message itself says what was acknowledged.
#include "bench/between/road.h"

#ifdef BENCH_HIREDIS
#include <fmt/format.h>
#include <hiredis/hiredis.h>
#include <poll.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/between/child.h"
#include "bench/between/memory_dir.h"
#include "tests/support/process.h"

namespace Bench {
namespace {

using TestSupport::Process;

std::string serverProgram() {
  char const* const path = std::getenv("PATH");
  std::string const places = path ? path : "/usr/bin";
  for (std::size_t from = 0; from <= places.size();) {
    std::size_t const to = std::min(places.find(':', from), places.size());
    std::string const program = places.substr(from, to - from) + "/redis-server";
    if (access(program.c_str(), X_OK) == 0) return program;
    from = to + 1;
  }
  throw Missing("redis-server is not installed");
}

class Reply {
 public:
  explicit Reply(void* reply) : reply_(static_cast<redisReply*>(reply)) {}
  ~Reply() { freeReplyObject(reply_); }
  Reply(Reply const&) = delete;
  Reply& operator=(Reply const&) = delete;
  redisReply const* operator->() const { return reply_; }
  redisReply const& element(std::size_t i) const { return *reply_->element[i]; }
  // The payload of ["message", channel, payload].
  bool isMessage() const {
    return reply_->type == REDIS_REPLY_ARRAY && reply_->elements == 3 &&
           std::strcmp(element(0).str, "message") == 0;
  }

 private:
  redisReply* const reply_;
};

class Connection {
 public:
  explicit Connection(std::string const& socket) : context_(redisConnectUnix(socket.c_str())) {
    if (!good()) throw std::runtime_error("redis: cannot connect");
  }
  ~Connection() { redisFree(context_); }
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  template <class... Args>
  void append(char const* format, Args... args) {
    redisAppendCommand(context_, format, args...);
    ++owed_;
  }
  void send() {
    int done = 0;
    while (!done) must(redisBufferWrite(context_, &done));
  }
  // The next reply, waited for.
  std::unique_ptr<Reply> reply() {
    void* got = nullptr;
    must(redisGetReply(context_, &got));
    if (owed_) --owed_;
    auto made = std::make_unique<Reply>(got);
    if ((*made)->type == REDIS_REPLY_ERROR) throw std::runtime_error(std::string("redis: ") + (*made)->str);
    return made;
  }
  void allReplies() {
    send();
    while (owed_) reply();
  }
  void subscribe(char const* channel) {
    append("SUBSCRIBE %s", channel);
    reply();
  }
  // Calls `take` with each payload that is there, after sleeping until there is one, for `milliseconds` or,
  // with -1, for ever; how many.
  template <class Take>
  U64 messages(int milliseconds, Take const& take) {
    if (U64 const buffered = parsed(take)) return buffered;
    while (true) {
      pollfd p{context_->fd, POLLIN, 0};
      if (poll(&p, 1, milliseconds) != 1) throw std::runtime_error("redis: silence");
      must(redisBufferRead(context_));
      if (U64 const found = parsed(take)) return found;
    }
  }

 private:
  bool good() const { return context_ && context_->err == 0; }
  void must(int code) const {
    if (code != REDIS_OK) throw std::runtime_error(std::string("redis: ") + context_->errstr);
  }
  template <class Take>
  U64 parsed(Take const& take) {
    U64 count = 0;
    while (true) {
      void* got = nullptr;
      must(redisGetReplyFromReader(context_, &got));
      if (!got) return count;
      Reply const message(got);
      if (!message.isMessage()) continue;
      take(std::strtoull(message.element(2).str, nullptr, 10));
      ++count;
    }
  }

  redisContext* const context_;
  U64 owed_ = 0;  // replies that nobody has read
};

using Number = unsigned long long;

// The far end: reads what was written, and acknowledges its version.
void acknowledgeForEver(std::string const& socket) {
  Connection news(socket), commands(socket);
  news.subscribe("config");
  commands.append("SET far 1");
  commands.allReplies();
  std::vector<Number> keys, versions;
  while (true) {
    keys.clear();
    versions.clear();
    news.messages(-1, [&](Number key) { keys.push_back(key); });
    for (Number const key : keys) commands.append("HGETALL config:%llu", key);
    for (std::size_t i = 0; i < keys.size(); ++i)
      versions.push_back(std::strtoull(commands.reply()->element(1).str, nullptr, 10));
    for (std::size_t i = 0; i < keys.size(); ++i) {
      commands.append("HSET status:%llu opId %llu", keys[i], versions[i]);
      commands.append("PUBLISH status %llu:%llu", keys[i], versions[i]);
    }
    commands.allReplies();
  }
}

class RedisRoad : public Road {
 public:
  explicit RedisRoad(U64 entries)
      : socket_(dir_ / "redis.sock"),
        server_({serverProgram(), "--port", "0", "--unixsocket", socket_, "--save", "", "--appendonly", "no",
                 "--dir", dir_.path()},
                dir_ / "out", dir_ / "err") {
    awaitServer();
    commands_ = std::make_unique<Connection>(socket_);
    news_ = std::make_unique<Connection>(socket_);
    news_->subscribe("status");
    for (U64 key = 1; key <= entries; ++key) {
      hashWrite(key);
      if (key % 1000 == 0) commands_->allReplies();
    }
    commands_->allReplies();
    far_ = std::make_unique<Child>([this] { acknowledgeForEver(socket_); });
    if (!TestSupport::eventually([this] { return farIsThere(); }))
      throw std::runtime_error("redis: the far end does not start");
  }
  ~RedisRoad() override {
    far_.reset();
    server_.signal(SIGTERM);
    server_.wait();
  }

  void write(U64 key, Change) override {
    hashWrite(key);
    commands_->append("PUBLISH config %llu", Number{key});
    commands_->send();
    if (++unread_ == 64) {
      commands_->allReplies();
      unread_ = 0;
    }
  }
  U64 await() override {
    return news_->messages(patience, [](Number) {});
  }

 protected:
  std::vector<pid_t> farEnd() const override { return {far_->pid()}; }
  std::vector<pid_t> servers() const override { return {server_.pid()}; }

 private:
  void awaitServer() {
    if (!TestSupport::eventually([this] { return std::filesystem::exists(socket_); }))
      throw std::runtime_error("redis: the server does not start: " + server_.out());
  }
  bool farIsThere() {
    commands_->append("EXISTS far");
    commands_->send();
    return commands_->reply()->operator->()->integer == 1;
  }
  void hashWrite(Number key) {
    Number const version = ++version_;
    commands_->append("HSET config:%llu opId %llu pg 0 prio %llu ti %llu d0 %llu d1 %llu d2 %llu d3 %llu",
                      key, version, key, 2 * key, key, key, key, version);
  }

  MemoryDir const dir_;
  std::string const socket_;
  Process server_;
  std::unique_ptr<Connection> commands_, news_;
  std::unique_ptr<Child> far_;
  U64 version_ = 0;
  U64 unread_ = 0;
};

}  // namespace

std::unique_ptr<Road> redisRoad(U64 entries) { return std::make_unique<RedisRoad>(entries); }

}  // namespace Bench

#else

namespace Bench {
std::unique_ptr<Road> redisRoad(U64) { throw Missing("built without libhiredis-dev"); }
}  // namespace Bench

#endif
