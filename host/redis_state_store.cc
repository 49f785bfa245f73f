#include "redis_state_store.h"

#include <hiredis/hiredis.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include "qpn_debug_kit.h"
#include "wire_socket.h"

namespace {

// How long a command waits for another command's try of a Redis that was
// last seen down before it gives up (at most the command time-out): long
// enough for a try that succeeds (Redis is back), far shorter than a stall.
constexpr int kTrialWaitMs = 20;

const char kSessionPrefix[] = "nox:s:";
const char kInfoPrefix[] = "nox:i:";
// Not "nox:c:", where earlier gateways kept a challenge as a plain string:
// during an upgrade, neither version meets a key of the other's type.
const char kChallengePrefix[] = "nox:ch:";
const char kFailurePrefix[] = "nox:f:";

// A session's hash holds "ends", the server time (milliseconds) at which it
// goes idle; the key itself lives twice the idle time, so that a token that
// comes back after the idle time finds its session expired, not unknown.
// Renews a live session and its session information and answers {1, fields};
// ends an idle one (and its session information) and answers {2, fields};
// answers {0, {}} when there is none. A hash without "ends" (written by an
// earlier gateway) is live while its key lives.
const char kTouchScript[] =
    "local f = redis.call('HGETALL', KEYS[1])\n"
    "if #f == 0 then return {0, f} end\n"
    "local t = redis.call('TIME')\n"
    "local now = tonumber(t[1]) * 1000 + math.floor(tonumber(t[2]) / 1000)\n"
    "local ends = redis.call('HGET', KEYS[1], 'ends')\n"
    "local id = redis.call('HGET', KEYS[1], 'id')\n"
    "if ends and now >= tonumber(ends) then\n"
    "  redis.call('DEL', KEYS[1])\n"
    "  if id then redis.call('DEL', ARGV[2] .. id) end\n"
    "  return {2, f}\n"
    "end\n"
    "local idle = tonumber(ARGV[1]) * 1000\n"
    "redis.call('HSET', KEYS[1], 'ends', now + idle)\n"
    "redis.call('PEXPIRE', KEYS[1], 2 * idle)\n"
    "if id then redis.call('EXPIRE', ARGV[2] .. id, ARGV[1]) end\n"
    "return {1, f}\n";

// 1 when the session lives (its end is ahead), else 0; changes nothing.
const char kAliveScript[] =
    "local ends = redis.call('HGET', KEYS[1], 'ends')\n"
    "if not ends then return 0 end\n"
    "local t = redis.call('TIME')\n"
    "local now = tonumber(t[1]) * 1000 + math.floor(tonumber(t[2]) / 1000)\n"
    "if now >= tonumber(ends) then return 0 end\n"
    "return 1\n";

// Stores a session's fields (ARGV[2..]) with its idle time-out (ARGV[1]).
const char kPutSessionScript[] =
    "local t = redis.call('TIME')\n"
    "local now = tonumber(t[1]) * 1000 + math.floor(tonumber(t[2]) / 1000)\n"
    "local idle = tonumber(ARGV[1]) * 1000\n"
    "redis.call('DEL', KEYS[1])\n"
    "redis.call('HSET', KEYS[1], unpack(ARGV, 2))\n"
    "redis.call('HSET', KEYS[1], 'ends', now + idle)\n"
    "redis.call('PEXPIRE', KEYS[1], 2 * idle)\n"
    "return 1\n";

// The sessions among KEYS that are live now (an expired one waits for its
// key's end or its next touch).
const char kCountLiveScript[] =
    "local t = redis.call('TIME')\n"
    "local now = tonumber(t[1]) * 1000 + math.floor(tonumber(t[2]) / 1000)\n"
    "local n = 0\n"
    "for _, key in ipairs(KEYS) do\n"
    "  local ends = redis.call('HGET', key, 'ends')\n"
    "  if redis.call('EXISTS', key) == 1 and (not ends or now < tonumber(ends)) then\n"
    "    n = n + 1\n"
    "  end\n"
    "end\n"
    "return n\n";

// Takes a session away; answers its fields.
const char kRemoveSessionScript[] =
    "local f = redis.call('HGETALL', KEYS[1])\n"
    "redis.call('DEL', KEYS[1])\n"
    "return f\n";

const char kSetStateScript[] =
    "if redis.call('EXISTS', KEYS[1]) == 0 then return 0 end\n"
    "redis.call('HSET', KEYS[1], 'state', ARGV[1])\n"
    "return 1\n";

// The pair's count, its last failure and the server's time.
const char kFailuresScript[] =
    "local now = tonumber(redis.call('TIME')[1])\n"
    "local n = redis.call('HGET', KEYS[1], 'n')\n"
    "if not n then return {0, 0, now} end\n"
    "return {tonumber(n), tonumber(redis.call('HGET', KEYS[1], 'last')), now}\n";

// One more failure (at most ARGV[2]), stamped with the server's time; the
// pair is forgotten ARGV[1] seconds after it.
const char kAddFailureScript[] =
    "local now = tonumber(redis.call('TIME')[1])\n"
    "local n = tonumber(redis.call('HGET', KEYS[1], 'n') or '0')\n"
    "if n < tonumber(ARGV[2]) then n = n + 1 end\n"
    "redis.call('HSET', KEYS[1], 'n', n, 'last', now)\n"
    "redis.call('EXPIRE', KEYS[1], ARGV[1])\n"
    "return {n, now, now}\n";

// Stores a challenge's code (ARGV[1]) and when it dies, ARGV[2] seconds from
// the server's time; the key lives ARGV[3] seconds longer. Answers when it dies.
const char kPutChallengeScript[] =
    "local dies = tonumber(redis.call('TIME')[1]) + tonumber(ARGV[2])\n"
    "redis.call('DEL', KEYS[1])\n"
    "redis.call('HSET', KEYS[1], 'code', ARGV[1], 'dies', dies)\n"
    "redis.call('EXPIRE', KEYS[1], tonumber(ARGV[2]) + tonumber(ARGV[3]))\n"
    "return dies\n";

// Takes a challenge away; answers its code, when it dies and the server's
// time, or an empty list when there is none.
const char kTakeChallengeScript[] =
    "local f = redis.call('HMGET', KEYS[1], 'code', 'dies')\n"
    "if not f[1] then return {} end\n"
    "redis.call('DEL', KEYS[1])\n"
    "return {f[1], tonumber(f[2]), tonumber(redis.call('TIME')[1])}\n";

std::string jsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

Json::Value parseJson(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return Json::Value();
  return value;
}

long long toNumber(const std::string& text) { return std::strtoll(text.c_str(), nullptr, 10); }

}  // namespace

// An owned redisReply.
class RedisStateStore::Reply {
 public:
  explicit Reply(redisReply* reply) : reply_(reply) {}
  Reply(Reply&& other) noexcept : reply_(other.reply_) { other.reply_ = nullptr; }
  ~Reply() {
    if (reply_ != nullptr) freeReplyObject(reply_);
  }
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;

  bool isNil() const { return reply_->type == REDIS_REPLY_NIL; }
  long long integer() const {
    if (reply_->type == REDIS_REPLY_INTEGER) return reply_->integer;
    if (reply_->type == REDIS_REPLY_STRING) return toNumber(text());
    throw StateStoreError("unexpected answer from Redis (no number)");
  }
  std::string text() const {
    if (reply_->type == REDIS_REPLY_STRING || reply_->type == REDIS_REPLY_STATUS) {
      return std::string(reply_->str, reply_->len);
    }
    if (reply_->type == REDIS_REPLY_NIL) return std::string();
    throw StateStoreError("unexpected answer from Redis (no text)");
  }
  // The elements of an array answer.
  std::vector<const redisReply*> elements() const {
    if (reply_->type != REDIS_REPLY_ARRAY) throw StateStoreError("unexpected answer from Redis (no list)");
    return std::vector<const redisReply*>(reply_->element, reply_->element + reply_->elements);
  }
  // Field-value pairs of an HGETALL answer.
  std::map<std::string, std::string> fields() const { return fieldsOf(reply_); }
  // Field-value pairs of an HGETALL answer inside another answer.
  static std::map<std::string, std::string> fieldsOf(const redisReply* reply) {
    if (reply->type != REDIS_REPLY_ARRAY) throw StateStoreError("unexpected answer from Redis (no list)");
    std::map<std::string, std::string> out;
    for (size_t i = 0; i + 1 < reply->elements; i += 2) {
      const redisReply* name = reply->element[i];
      const redisReply* value = reply->element[i + 1];
      out[std::string(name->str, name->len)] = std::string(value->str, value->len);
    }
    return out;
  }

 private:
  redisReply* reply_;
};

namespace {

StoredSession sessionOf(const std::map<std::string, std::string>& f) {
  auto get = [&f](const char* name) {
    auto it = f.find(name);
    return it == f.end() ? std::string() : it->second;
  };
  StoredSession s;
  s.id = get("id");
  s.device.id_ = get("dev");
  s.device.address_ = get("addr");
  s.user.userName_ = get("user");
  s.user.userId_ = get("uid");
  s.user.scope_ = get("scope");
  s.user.clientAddress_ = get("client");
  s.language = get("lang");
  const std::string state = get("state");
  if (!state.empty()) s.state = parseJson(state);
  return s;
}

}  // namespace

const char kRedisScheme[] = "redis://";
const char kRedisSentinelScheme[] = "redis-sentinel://";

namespace {

// "HOST[:PORT]" into *endpoint (the port stays as given when there is none
// and `needPort` is false).
bool parseEndpoint(std::string text, bool needPort, RedisEndpoint* endpoint, std::string* error) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos && needPort) {
    *error = "the sentinel \"" + text + "\" has no port";
    return false;
  }
  if (colon != std::string::npos) {
    const std::string port = text.substr(colon + 1);
    text.resize(colon);
    if (port.empty() || port.find_first_not_of("0123456789") != std::string::npos ||
        port.size() > 5 || std::atoi(port.c_str()) < 1 || std::atoi(port.c_str()) > 65535) {
      *error = "the port \"" + port + "\" is not a port number";
      return false;
    }
    endpoint->port = std::atoi(port.c_str());
  }
  if (text.empty()) {
    *error = "the state address names no host";
    return false;
  }
  endpoint->host = text;
  return true;
}

// "[[user]:password@]rest" or "[password@]rest": the credentials into *out.
std::string takeCredentials(std::string rest, bool withUser, RedisAddress* out) {
  const size_t at = rest.rfind('@');
  if (at == std::string::npos) return rest;
  const std::string credentials = rest.substr(0, at);
  const size_t colon = withUser ? credentials.find(':') : std::string::npos;
  if (colon == std::string::npos) {
    out->password = credentials;
  } else {
    out->user = credentials.substr(0, colon);
    out->password = credentials.substr(colon + 1);
  }
  return rest.substr(at + 1);
}

// "host:port[,host:port...]/master" into out->sentinels and out->master.
bool parseSentinels(const std::string& rest, RedisAddress* out, std::string* error) {
  const size_t slash = rest.find('/');
  if (slash == std::string::npos || slash + 1 == rest.size()) {
    *error = "the sentinel address names no master (.../MASTERNAME)";
    return false;
  }
  out->master = rest.substr(slash + 1);
  size_t from = 0;
  while (from <= slash) {
    size_t comma = rest.find(',', from);
    if (comma == std::string::npos || comma > slash) comma = slash;
    RedisEndpoint sentinel;
    if (!parseEndpoint(rest.substr(from, comma - from), true, &sentinel, error)) return false;
    out->sentinels.push_back(sentinel);
    from = comma + 1;
  }
  return true;
}

}  // namespace

bool parseRedisAddress(const std::string& url, RedisAddress* address, std::string* error) {
  RedisAddress out;
  const std::string sentinelScheme = kRedisSentinelScheme;
  if (url.compare(0, sentinelScheme.size(), sentinelScheme) == 0) {
    const std::string rest = takeCredentials(url.substr(sentinelScheme.size()), false, &out);
    if (!parseSentinels(rest, &out, error)) return false;
    out.host.clear();
    *address = out;
    return true;
  }
  const std::string scheme = kRedisScheme;
  if (url.compare(0, scheme.size(), scheme) != 0) {
    *error = "the state address must start with redis:// or redis-sentinel://";
    return false;
  }
  std::string rest = takeCredentials(url.substr(scheme.size()), true, &out);
  const size_t slash = rest.find('/');
  if (slash != std::string::npos) {
    const std::string db = rest.substr(slash + 1);
    rest.resize(slash);
    if (!db.empty()) {
      if (db.find_first_not_of("0123456789") != std::string::npos || db.size() > 5) {
        *error = "the database number \"" + db + "\" is not a number";
        return false;
      }
      out.db = std::atoi(db.c_str());
    }
  }
  RedisEndpoint endpoint;
  endpoint.port = out.port;
  if (!parseEndpoint(rest, false, &endpoint, error)) return false;
  out.host = endpoint.host;
  out.port = endpoint.port;
  *address = out;
  return true;
}

std::shared_ptr<RedisStateStore> RedisStateStore::open(const std::string& url, int timeoutMs,
                                                       std::string* error) {
  RedisAddress address;
  if (!parseRedisAddress(url, &address, error)) return nullptr;
  return std::shared_ptr<RedisStateStore>(
      new RedisStateStore(std::move(address), timeoutMs > 0 ? timeoutMs : 500));
}

RedisStateStore::RedisStateStore(RedisAddress address, int timeoutMs)
    : address_(std::move(address)),
      timeoutMs_(timeoutMs),
      gate_(std::min(kTrialWaitMs, timeoutMs)) {}

RedisStateStore::~RedisStateStore() {
  for (const auto& kept : idle_) redisFree(kept.first);
}

namespace {

std::string endpointText(const RedisEndpoint& e) { return e.host + ":" + std::to_string(e.port); }

// Logged (warning) when the sentinels name another primary than the one in
// use before: the new one, then the old one.
const char kPrimaryChangedText[] = "the session store's primary is now %s (was %s)";

timeval timeoutOf(int ms) {
  timeval tv;
  tv.tv_sec = ms / 1000;
  tv.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
  return tv;
}

// Runs one command on `c`; the reply, or null with c->errstr set.
redisReply* runOn(redisContext* c, const std::vector<std::string>& words) {
  std::vector<const char*> argv;
  std::vector<size_t> lengths;
  argv.reserve(words.size());
  lengths.reserve(words.size());
  for (const std::string& w : words) {
    argv.push_back(w.data());
    lengths.push_back(w.size());
  }
  return static_cast<redisReply*>(
      redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lengths.data()));
}

// Appends one command to `c`'s output buffer (a pipeline).
void appendOn(redisContext* c, const std::vector<std::string>& words) {
  std::vector<const char*> argv;
  std::vector<size_t> lengths;
  for (const std::string& w : words) {
    argv.push_back(w.data());
    lengths.push_back(w.size());
  }
  redisAppendCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lengths.data());
}

// A connection to `where` within `timeoutMs`, or StateStoreError.
redisContext* dial(const RedisEndpoint& where, int timeoutMs) {
  const timeval tv = timeoutOf(timeoutMs);
  redisContext* c = redisConnectWithTimeout(where.host.c_str(), where.port, tv);
  if (c == nullptr) throw StateStoreError("cannot allocate a Redis connection");
  if (c->err != 0) {
    const std::string why = c->errstr;
    redisFree(c);
    throw StateStoreError("cannot connect to " + endpointText(where) + ": " + why);
  }
  redisSetTimeout(c, tv);
  return c;
}

// Runs a set-up command on a new connection; frees it and throws when refused.
std::string setUp(redisContext* c, const std::vector<std::string>& words, const std::string& who) {
  redisReply* r = runOn(c, words);
  const bool failed = r == nullptr || r->type == REDIS_REPLY_ERROR;
  std::string text;
  if (r == nullptr) {
    text = c->errstr;
  } else if (r->type == REDIS_REPLY_ARRAY && r->elements > 0 && r->element[0]->str != nullptr) {
    text.assign(r->element[0]->str, r->element[0]->len);  // ROLE: the role
  } else if (r->str != nullptr) {
    text.assign(r->str, r->len);
  }
  if (r != nullptr) freeReplyObject(r);
  if (failed) {
    redisFree(c);
    throw StateStoreError(words[0] + " refused by " + who + ": " + text);
  }
  return text;
}

bool isReadOnlyError(const redisReply* r) {
  static const char kReadOnly[] = "READONLY";
  return r->type == REDIS_REPLY_ERROR && r->len >= sizeof(kReadOnly) - 1 &&
         std::strncmp(r->str, kReadOnly, sizeof(kReadOnly) - 1) == 0;
}

}  // namespace

std::string RedisStateStore::describe() const {
  if (address_.sentinels.empty()) {
    return kRedisScheme + address_.host + ":" + std::to_string(address_.port) + "/" +
           std::to_string(address_.db);
  }
  std::string out = kRedisSentinelScheme;
  for (size_t i = 0; i < address_.sentinels.size(); ++i) {
    out += (i == 0 ? "" : ",") + endpointText(address_.sentinels[i]);
  }
  return out + "/" + address_.master;
}

std::string RedisStateStore::primaryInUse() const {
  if (address_.sentinels.empty()) return address_.host + ":" + std::to_string(address_.port);
  std::lock_guard<std::mutex> lock(poolMutex_);
  return primary_.host.empty() ? std::string() : endpointText(primary_);
}

long long RedisStateStore::failovers() const {
  std::lock_guard<std::mutex> lock(poolMutex_);
  return failovers_;
}

RedisEndpoint RedisStateStore::askSentinels() {
  size_t first = 0;
  {
    std::lock_guard<std::mutex> lock(poolMutex_);
    first = sentinelFirst_;
  }
  std::string why;
  const size_t n = address_.sentinels.size();
  for (size_t i = 0; i < n; ++i) {
    const size_t at = (first + i) % n;
    const RedisEndpoint& sentinel = address_.sentinels[at];
    try {
      redisContext* c = dial(sentinel, timeoutMs_);
      redisReply* r = runOn(c, {"SENTINEL", "get-master-addr-by-name", address_.master});
      RedisEndpoint found;
      std::string answer = r == nullptr ? std::string(c->errstr) : std::string("no address");
      if (r != nullptr && r->type == REDIS_REPLY_ARRAY && r->elements == 2) {
        found.host.assign(r->element[0]->str, r->element[0]->len);
        found.port = std::atoi(r->element[1]->str);
      } else if (r != nullptr && r->type == REDIS_REPLY_ERROR) {
        answer.assign(r->str, r->len);
      }
      if (r != nullptr) freeReplyObject(r);
      redisFree(c);
      if (found.host.empty()) throw StateStoreError(answer);
      std::lock_guard<std::mutex> lock(poolMutex_);
      sentinelFirst_ = at;
      return found;
    } catch (const StateStoreError& e) {
      why += (why.empty() ? "" : "; ") + endpointText(sentinel) + ": " + e.what();
    }
  }
  throw StateStoreError("no sentinel names the primary of \"" + address_.master + "\" (" + why +
                        ")");
}

RedisEndpoint RedisStateStore::target(unsigned* generation) {
  if (address_.sentinels.empty()) {
    *generation = 0;
    RedisEndpoint plain;
    plain.host = address_.host;
    plain.port = address_.port;
    return plain;
  }
  {
    std::lock_guard<std::mutex> lock(poolMutex_);
    *generation = generation_;
    if (!primary_.host.empty()) return primary_;
  }
  const RedisEndpoint found = askSentinels();
  std::string was;
  RedisEndpoint chosen;
  {
    std::lock_guard<std::mutex> lock(poolMutex_);
    // Another call may have found it meanwhile: one answer per generation.
    if (primary_.host.empty()) {
      primary_ = found;
      const std::string name = endpointText(found);
      if (!lastPrimary_.empty() && lastPrimary_ != name) {
        ++failovers_;
        was = lastPrimary_;
      }
      lastPrimary_ = name;
    }
    *generation = generation_;
    chosen = primary_;
  }
  if (!was.empty()) {
    CQPNDebugKitGuard guard(2, "RedisStateStore");
    guard.warn(0, "target", __LINE__, kPrimaryChangedText, endpointText(chosen).c_str(),
               was.c_str());
  }
  return chosen;
}

void RedisStateStore::forgetPrimary(unsigned generation) {
  if (address_.sentinels.empty()) return;
  std::lock_guard<std::mutex> lock(poolMutex_);
  if (generation != generation_) return;  // already forgotten
  primary_ = RedisEndpoint();
  ++generation_;
  for (const auto& kept : idle_) redisFree(kept.first);
  idle_.clear();
}

redisContext* RedisStateStore::connect(unsigned* generation) {
  const RedisEndpoint where = target(generation);
  redisContext* c = nullptr;
  try {
    c = dial(where, timeoutMs_);
  } catch (const StateStoreError&) {
    forgetPrimary(*generation);
    throw;
  }
  const std::string who = endpointText(where);
  if (!address_.password.empty()) {
    if (address_.user.empty()) {
      setUp(c, {"AUTH", address_.password}, who);
    } else {
      setUp(c, {"AUTH", address_.user, address_.password}, who);
    }
  }
  if (address_.db != 0) setUp(c, {"SELECT", std::to_string(address_.db)}, who);
  if (!address_.sentinels.empty()) {
    // The sentinels' answer may be older than a demotion.
    const std::string role = setUp(c, {"ROLE"}, who);
    if (role != "master") {
      redisFree(c);
      forgetPrimary(*generation);
      throw StateStoreError(who + " is not the primary (its role is " + role + ")");
    }
  }
  return c;
}

redisContext* RedisStateStore::takeIdle(unsigned* generation) {
  std::lock_guard<std::mutex> lock(poolMutex_);
  while (!idle_.empty()) {
    const std::pair<redisContext*, unsigned> kept = idle_.back();
    idle_.pop_back();
    if (kept.second == generation_ && wiresock::idleAlive(kept.first->fd)) {
      *generation = kept.second;
      return kept.first;
    }
    // Closed by Redis while kept (it stopped or restarted), or to a
    // primary no longer in use.
    redisFree(kept.first);
  }
  return nullptr;
}

void RedisStateStore::keep(redisContext* c, unsigned generation) {
  std::lock_guard<std::mutex> lock(poolMutex_);
  if (generation == generation_) {
    idle_.emplace_back(c, generation);
  } else {
    redisFree(c);
  }
}

redisReply* RedisStateStore::exchangeOn(redisContext* c, unsigned generation,
                                        const std::vector<std::string>& words, bool waitReplica,
                                        long long* replicas) {
  errno = 0;
  redisReply* r = nullptr;
  redisReply* waited = nullptr;
  if (waitReplica) {
    // WAIT counts the replicas that have this connection's writes.
    redisSetTimeout(c, timeoutOf(timeoutMs_ + replicaWaitMs_));
    appendOn(c, words);
    appendOn(c, {"WAIT", "1", std::to_string(replicaWaitMs_)});
    void* first = nullptr;
    void* second = nullptr;
    if (redisGetReply(c, &first) == REDIS_OK && redisGetReply(c, &second) == REDIS_OK) {
      r = static_cast<redisReply*>(first);
      waited = static_cast<redisReply*>(second);
    } else if (first != nullptr) {
      freeReplyObject(first);
    }
    redisSetTimeout(c, timeoutOf(timeoutMs_));
  } else {
    r = runOn(c, words);
  }
  if (r == nullptr) {
    // Lost, refused or timed out: this connection is done with.
    const bool timedOut = c->err == REDIS_ERR_IO && (errno == EAGAIN || errno == EWOULDBLOCK);
    const std::string why = timedOut ? "no answer within " + std::to_string(timeoutMs_) + " ms"
                                     : std::string(c->errstr);
    redisFree(c);
    forgetPrimary(generation);
    throw StateStoreError(describe() + ": " + why);
  }
  if (waited != nullptr) {
    *replicas = waited->type == REDIS_REPLY_INTEGER ? waited->integer : 0;
    freeReplyObject(waited);
  }
  keep(c, generation);
  return r;
}

redisReply* RedisStateStore::exchange(const std::vector<std::string>& words, bool waitReplica,
                                      long long* replicas, unsigned* generation) {
  redisContext* c = takeIdle(generation);
  if (c == nullptr) c = connect(generation);
  return exchangeOn(c, *generation, words, waitReplica, replicas);
}

redisReply* RedisStateStore::exchangeOnPrimary(const std::vector<std::string>& words,
                                               bool waitReplica, long long* replicas) {
  for (int attempt = 0;; ++attempt) {
    unsigned generation = 0;
    redisReply* r = exchange(words, waitReplica, replicas, &generation);
    if (address_.sentinels.empty() || attempt > 0 || !isReadOnlyError(r)) return r;
    // Demoted: it did nothing. Ask the sentinels for the new primary.
    freeReplyObject(r);
    forgetPrimary(generation);
  }
}

RedisStateStore::Reply RedisStateStore::send(const std::vector<std::string>& words, bool trial,
                                             bool durable) {
  const bool waitReplica = durable && replicaWaitMs_ > 0;
  long long replicas = 0;
  redisReply* r = nullptr;
  try {
    r = exchangeOnPrimary(words, waitReplica, &replicas);
  } catch (const StateStoreError& e) {
    gate_.leave(trial, false, e.what());
    throw;
  } catch (...) {
    // Failed here (out of memory), not at Redis: the next call tries.
    gate_.abandon(trial);
    throw;
  }
  // An error answer is still an answer: Redis is there.
  gate_.leave(trial, true, std::string());
  Reply reply(r);
  if (r->type == REDIS_REPLY_ERROR) {
    throw StateStoreError(describe() + " refused " + words[0] + ": " + std::string(r->str, r->len));
  }
  if (waitReplica && replicas < 1) {
    throw StateStoreError(describe() + ": no replica took the write within " +
                          std::to_string(replicaWaitMs_) + " ms");
  }
  return reply;
}

RedisStateStore::Reply RedisStateStore::command(const std::vector<std::string>& words,
                                                bool durable) {
  bool trial = false;
  std::string why;
  if (!gate_.enter(&trial, &why)) {
    throw StateStoreError(describe() + " is not answering (" + why +
                          "); another request is trying it");
  }
  return send(words, trial, durable);
}

std::vector<std::string> RedisStateStore::keys(const std::string& pattern) {
  std::vector<std::string> out;
  std::string cursor = "0";
  do {
    Reply r = command({"SCAN", cursor, "MATCH", pattern, "COUNT", "1000"});
    const std::vector<const redisReply*> e = r.elements();
    if (e.size() != 2) throw StateStoreError("unexpected answer from Redis to SCAN");
    cursor.assign(e[0]->str, e[0]->len);
    for (size_t i = 0; i < e[1]->elements; ++i) {
      out.emplace_back(e[1]->element[i]->str, e[1]->element[i]->len);
    }
  } while (cursor != "0");
  return out;
}

bool RedisStateStore::healthy(std::string* detail) {
  try {
    gate_.enterProbe();
    const std::string pong = send({"PING"}, true, false).text();
    if (pong != "PONG") throw StateStoreError("PING answered " + pong);
    if (detail != nullptr) detail->clear();
    return true;
  } catch (const StateStoreError& e) {
    if (detail != nullptr) *detail = e.what();
    return false;
  }
}

void RedisStateStore::putSession(const std::string& key, const StoredSession& s, time_t now,
                                 int idleSeconds) {
  (void)now;
  std::vector<std::string> words = {"EVAL", kPutSessionScript, "1", kSessionPrefix + key,
                                    std::to_string(idleSeconds)};
  const std::pair<const char*, std::string> fields[] = {
      {"id", s.id},
      {"dev", s.device.id_},
      {"addr", s.device.address_},
      {"user", s.user.userName_},
      {"uid", s.user.userId_},
      {"scope", s.user.scope_},
      {"client", s.user.clientAddress_},
      {"lang", s.language},
      {"state", s.state.isNull() ? std::string() : jsonText(s.state)},
  };
  for (const auto& field : fields) {
    words.emplace_back(field.first);
    words.push_back(field.second);
  }
  command(words, true);
}

bool RedisStateStore::touchSession(const std::string& key, time_t now, int idleSeconds,
                                   const std::string& infoPrefix, StoredSession* session,
                                   bool* expired) {
  (void)now;
  *expired = false;
  Reply r = command({"EVAL", kTouchScript, "1", kSessionPrefix + key, std::to_string(idleSeconds),
                     kInfoPrefix + infoPrefix});
  const std::vector<const redisReply*> e = r.elements();
  if (e.size() != 2 || e[0]->type != REDIS_REPLY_INTEGER) {
    throw StateStoreError("unexpected answer from Redis to a session touch");
  }
  const std::map<std::string, std::string> f = Reply::fieldsOf(e[1]);
  if (e[0]->integer == 0 || f.empty()) return false;
  *session = sessionOf(f);
  *expired = e[0]->integer == 2;
  return !*expired;
}

bool RedisStateStore::sessionAlive(const std::string& key, time_t now, int idleSeconds) {
  // Redis keeps each session's end itself.
  (void)now;
  (void)idleSeconds;
  return command({"EVAL", kAliveScript, "1", kSessionPrefix + key}).integer() == 1;
}

bool RedisStateStore::removeSession(const std::string& key, StoredSession* session) {
  Reply r = command({"EVAL", kRemoveSessionScript, "1", kSessionPrefix + key}, true);
  const std::map<std::string, std::string> f = r.fields();
  if (f.empty()) return false;
  *session = sessionOf(f);
  return true;
}

bool RedisStateStore::setSessionState(const std::string& key, const Json::Value& state) {
  return command({"EVAL", kSetStateScript, "1", kSessionPrefix + key, jsonText(state)}).integer() ==
         1;
}

void RedisStateStore::expireSessions(time_t now, int idleSeconds, std::vector<std::string>* ended) {
  // Redis ends idle sessions itself.
  (void)now;
  (void)idleSeconds;
  (void)ended;
}

size_t RedisStateStore::sessionCount() {
  const std::vector<std::string> found = keys(std::string(kSessionPrefix) + "*");
  if (found.empty()) return 0;
  std::vector<std::string> words = {"EVAL", kCountLiveScript, std::to_string(found.size())};
  words.insert(words.end(), found.begin(), found.end());
  return static_cast<size_t>(command(words).integer());
}

void RedisStateStore::clearSessions(std::vector<std::string>* ended) {
  for (const std::string& key : keys(std::string(kSessionPrefix) + "*")) {
    const std::string id = command({"HGET", key, "id"}).text();
    command({"DEL", key});
    if (!id.empty()) ended->push_back(id);
  }
}

void RedisStateStore::putInfo(const std::string& key, int kind, int ttlSeconds) {
  command({"SET", kInfoPrefix + key, std::to_string(kind), "EX",
           std::to_string(ttlSeconds > 0 ? ttlSeconds : 1800)});
}

int RedisStateStore::getInfo(const std::string& key) {
  Reply r = command({"GET", kInfoPrefix + key});
  return r.isNil() ? -1 : static_cast<int>(r.integer());
}

void RedisStateStore::removeInfo(const std::string& key) { command({"DEL", kInfoPrefix + key}); }

size_t RedisStateStore::infoCount() { return keys(std::string(kInfoPrefix) + "*").size(); }

time_t RedisStateStore::putChallenge(const std::string& id, const std::string& code, time_t now,
                                     int lifetime, int keptAfter, size_t maxLive) {
  // Redis drops challenges by itself; memory is the site's to size.
  (void)now;
  (void)maxLive;
  Reply r = command({"EVAL", kPutChallengeScript, "1", kChallengePrefix + id, code,
                     std::to_string(lifetime), std::to_string(keptAfter)});
  return static_cast<time_t>(r.integer());
}

ChallengeFound RedisStateStore::takeChallenge(const std::string& id, time_t now,
                                              std::string* code) {
  (void)now;  // the server's time decides, as it decided when the challenge dies
  Reply r = command({"EVAL", kTakeChallengeScript, "1", kChallengePrefix + id});
  const std::vector<const redisReply*> e = r.elements();
  if (e.empty()) return ChallengeFound::kNone;
  if (e.size() != 3 || e[0]->type != REDIS_REPLY_STRING || e[1]->type != REDIS_REPLY_INTEGER ||
      e[2]->type != REDIS_REPLY_INTEGER) {
    throw StateStoreError("unexpected answer from Redis to taking a challenge");
  }
  if (e[2]->integer >= e[1]->integer) return ChallengeFound::kExpired;
  code->assign(e[0]->str, e[0]->len);
  return ChallengeFound::kLive;
}

size_t RedisStateStore::challengeCount() {
  return keys(std::string(kChallengePrefix) + "*").size();
}

void RedisStateStore::clearChallenges() {
  for (const std::string& key : keys(std::string(kChallengePrefix) + "*")) command({"DEL", key});
}

namespace {

FailureCount countOf(const std::vector<const redisReply*>& e) {
  if (e.size() != 3) throw StateStoreError("unexpected answer from Redis to a failure count");
  FailureCount out;
  out.failures = static_cast<int>(e[0]->integer);
  out.lastFailure = static_cast<time_t>(e[1]->integer);
  out.now = static_cast<time_t>(e[2]->integer);
  return out;
}

}  // namespace

FailureCount RedisStateStore::failures(const std::string& key, time_t now, int forgetAfter) {
  (void)now;
  (void)forgetAfter;  // the key expires forgetAfter seconds after its last failure
  return countOf(command({"EVAL", kFailuresScript, "1", kFailurePrefix + key}).elements());
}

FailureCount RedisStateStore::addFailure(const std::string& key, time_t now, int forgetAfter,
                                         int cap) {
  (void)now;
  return countOf(command({"EVAL", kAddFailureScript, "1", kFailurePrefix + key,
                          std::to_string(forgetAfter), std::to_string(cap)})
                     .elements());
}

void RedisStateStore::clearFailures(const std::string& key) { command({"DEL", kFailurePrefix + key}); }

void RedisStateStore::clearAllFailures() {
  for (const std::string& key : keys(std::string(kFailurePrefix) + "*")) command({"DEL", key});
}
