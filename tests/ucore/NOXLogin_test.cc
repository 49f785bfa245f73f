// The "/sessions" and "/login" operations of the plug-in, against the
// reference host's login machinery and a scripted backend.
#include "NOXLogin.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <memory>

#include "NOXLoginOpWithVerifyCode.h"
#include "operation_base.h"
#include "trace_capture.h"
#include "login_test_rig.h"

extern "C" int NOXRegisterOperations(CSpecifyProc* proc);

// ---------------------------------------------------------------------------
// The one-second pause after a login, counted instead of slept.

namespace {
std::atomic<int> g_pauses{0};       // one-second sleeps asked for
std::atomic<int> g_otherSleeps{0};  // any other sleep while counting
}  // namespace

extern "C" int nanosleep(const struct timespec* wait, struct timespec* left) {
  if (wait != nullptr && wait->tv_sec == 1 && wait->tv_nsec == 0) {
    ++g_pauses;
    return 0;
  }
  ++g_otherSleeps;
  using Real = int (*)(const struct timespec*, struct timespec*);
  static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "nanosleep"));
  return real(wait, left);
}

namespace {

constexpr long long kInvalidScope = 0x03000003;
constexpr char kInvalidScopeText[] = "The user scope is invalid.";

// ---------------------------------------------------------------------------
// Dispatch by method, through the virtual slots.

// Records which handler the dispatch reached; each answers its own number.
class RecordingLogin : public NOXLogin {
 public:
  int handleLogin(CRequestMsg&, CResponseMsg&) override { return record("handleLogin", 11); }
  int handleLogout(CRequestMsg&, CResponseMsg&) override { return record("handleLogout", 12); }
  int handleGetLoginToken(CRequestMsg&, CResponseMsg&) override {
    return record("handleGetLoginToken", 13);
  }
  int handleCheckCode(CRequestMsg&, CResponseMsg&) override {
    return record("handleCheckCode", 14);
  }
  std::vector<std::string> calls;

 private:
  int record(const char* name, int result) {
    calls.push_back(name);
    return result;
  }
};

struct DispatchCase {
  const char* method;
  const char* handler;  // "" when none may run
  int result;
  const char* why;
};

const DispatchCase kDispatchCases[] = {
    {"POST", "handleLogin", 11, "logs in"},
    {"post", "handleLogin", 11, "methods compare without case"},
    {"PoSt", "handleLogin", 11, "mixed case"},
    {"DELETE", "handleLogout", 12, "logs out"},
    {"delete", "handleLogout", 12, "lower-case delete logs out too"},
    {"GET", "handleCheckCode", 14, "GET checks the session, never issues a login token"},
    {"get", "handleCheckCode", 14, "lower-case get"},
    {"PUT", "", -1, "not served"},
    {"put", "", -1, "not served in any case"},
    {"PATCH", "", -1, "not served"},
    {"HEAD", "", -1, "not served"},
    {"", "", -1, "no method at all"},
    {"POSTS", "", -1, "a longer word is another method"},
    {"GE", "", -1, "a prefix is another method"},
};

TEST(NOXLoginDispatchTest, EachMethodReachesItsHandlerThroughTheVirtualSlot) {
  for (const DispatchCase& c : kDispatchCases) {
    SCOPED_TRACE(std::string(c.method) + ": " + c.why);
    RecordingLogin login;
    CSpecifyOp& op = login;  // as the host holds it
    CRequestMsg request;
    CResponseMsg response;
    EXPECT_EQ(op.op(c.method, "/sessions", request, response), c.result);
    if (*c.handler == '\0') {
      EXPECT_TRUE(login.calls.empty());
      EXPECT_TRUE(response.getJsonBody().isNull());
    } else {
      EXPECT_EQ(login.calls, std::vector<std::string>{c.handler});
    }
  }
}

TEST(NOXLoginDispatchTest, TakesEveryMethodInIsSupport) {
  NOXLogin login;
  SpecifyOpPrivData priv;
  for (const char* method : {"GET", "POST", "DELETE", "PUT", "patch"}) {
    EXPECT_TRUE(login.isSupport(method, "/sessions", priv)) << method;
  }
  EXPECT_EQ(priv.uploadMark_, 0u);
}

// ---------------------------------------------------------------------------
// The real flow on "/sessions".

class NOXLoginTest : public LoginTestBase {
 protected:
  void SetUp() override {
    LoginTestBase::SetUp();
    g_pauses = 0;
    g_otherSleeps = 0;
  }
  // Logs in on "/sessions" with scope "4"; returns the token.
  std::string loginApiUser() {
    LoginRequest post("POST");
    post.credentials("apiuser", "s3cret-Pa55", "4");
    EXPECT_EQ(sessions_.op("POST", "", post.request, post.response), 0);
    return post.body()["data"]["token"].asString();
  }

  NOXLogin sessions_;
  NOXLoginOpWithVerifyCode console_;
};

TEST_F(NOXLoginTest, PostLogsInAndLabelsTheSessionFromTheReply) {
  LoginReply reply;
  reply.numbers[proto::kTagUserState] = 4;  // state 3
  answerLogin(reply);
  LoginRequest post("POST");
  post.credentials("apiuser", "s3cret-Pa55", "4");
  ASSERT_EQ(sessions_.op("POST", "", post.request, post.response), 0);

  const Json::Value& data = post.body()["data"];
  EXPECT_EQ(data["userName"].asString(), "apiuser");
  EXPECT_EQ(data["scope"].asString(), "4");
  const std::string token = data["token"].asString();
  const std::string id = data["sessionId"].asString();
  CSessionInfo info;
  ASSERT_TRUE(SessionStore::instance().lookup(token, info));
  EXPECT_EQ(info.getHttpSession()->getId(), id);
  EXPECT_EQ(info.getHttpSession()->getAttribute(CSessionInfo::SESS_STAT_K), Json::Value(3));
  // The host labels the session under "session_" + its identifier.
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo("session_" + id), 7);
  EXPECT_EQ(g_pauses.load(), 1);
  ASSERT_EQ(loginsSent(), 1u);
  EXPECT_EQ(backend_.sent(proto::kLogin)[0].cell(proto::kTagScope)->asText(), "4");
}

TEST_F(NOXLoginTest, MarkedLoginIsLabelledState8Kind8ThroughTheHostFlow) {
  LoginReply reply;
  reply.numbers[proto::kTagLoginMark] = 4;
  reply.numbers[proto::kTagUserState] = 5;
  answerLogin(reply);
  LoginRequest post("post");
  post.credentials("apiuser", "s3cret-Pa55", "4");
  ASSERT_EQ(sessions_.op("post", "", post.request, post.response), 0);
  const std::string id = post.body()["data"]["sessionId"].asString();
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo("session_" + id), 8);
  EXPECT_EQ(post.request.getSessionInfo().getHttpSession()->getAttribute(
                CSessionInfo::SESS_STAT_K),
            Json::Value(8));
}

struct ScopeCase {
  const char* scope;
  bool accepted;
  const char* why;
};

// "/sessions" serves API clients only.
const ScopeCase kSessionScopes[] = {
    {"4", true, "the API scope"},
    {"0", false, "console scope belongs on /login"},
    {"1", false, "console scope belongs on /login"},
    {"", false, "an empty scope is refused, not defaulted"},
    {"5", false, "unknown scope"},
    {"44", false, "no prefix match"},
    {" 4", false, "no trimming"},
    {"4 ", false, "no trimming"},
};

TEST_F(NOXLoginTest, SessionsRouteAcceptsScope4Only) {
  for (const ScopeCase& c : kSessionScopes) {
    SCOPED_TRACE(std::string("scope \"") + c.scope + "\": " + c.why);
    backend_.clearSent();
    SessionStore::instance().clear();
    LoginRequest post("POST");
    post.credentials("apiuser", "s3cret-Pa55", c.scope);
    std::string file;
    const long long code =
        codeOf([&] { sessions_.op("POST", "", post.request, post.response); }, &file);
    if (c.accepted) {
      EXPECT_EQ(code, 0);
      EXPECT_EQ(loginsSent(), 1u);
      EXPECT_EQ(SessionStore::instance().size(), 1u);
    } else {
      EXPECT_EQ(code, kInvalidScope);
      EXPECT_EQ(file, kInvalidScopeText);
      EXPECT_EQ(loginsSent(), 0u) << "refused before anything is sent";
      EXPECT_EQ(SessionStore::instance().size(), 0u);
      EXPECT_EQ(LoginThrottle::instance().failures("apiuser", "192.0.2.10"), 0)
          << "a wrong route is not a guessed password";
    }
  }
}

// "/login" serves the console's administrators (0) and auditors (1).
const ScopeCase kConsoleScopes[] = {
    {"0", true, "administrator"},
    {"1", true, "auditor"},
    {"4", false, "API scope belongs on /sessions"},
    {"", false, "an empty scope is refused"},
    {"2", false, "unknown scope"},
    {"01", false, "no prefix match"},
    {"10", false, "no prefix match"},
};

TEST_F(NOXLoginTest, LoginRouteAcceptsScopes0And1Only) {
  CLoginOpWithVerifyCode::setExposeCodeForTests(true);
  for (const ScopeCase& c : kConsoleScopes) {
    SCOPED_TRACE(std::string("scope \"") + c.scope + "\": " + c.why);
    backend_.clearSent();
    SessionStore::instance().clear();
    LoginRequest get("GET", "/login");
    ASSERT_EQ(console_.op("GET", "", get.request, get.response), 0);
    LoginRequest post("POST", "/login");
    post.credentials("admin", "adm1n-Pa55", c.scope)
        .member("challengeId", get.body()["data"]["challengeId"].asString())
        .member("verifyCode", get.body()["data"]["code"].asString());
    std::string file;
    const long long code =
        codeOf([&] { console_.op("POST", "", post.request, post.response); }, &file);
    if (c.accepted) {
      EXPECT_EQ(code, 0);
      EXPECT_EQ(loginsSent(), 1u);
      EXPECT_EQ(post.body()["data"]["scope"].asString(), c.scope);
    } else {
      EXPECT_EQ(code, kInvalidScope);
      EXPECT_EQ(file, kInvalidScopeText);
      EXPECT_EQ(loginsSent(), 0u);
      EXPECT_EQ(SessionStore::instance().size(), 0u);
    }
  }
}

TEST_F(NOXLoginTest, DeleteLogsOutInEitherCase) {
  for (const char* method : {"DELETE", "delete"}) {
    SCOPED_TRACE(method);
    const std::string token = loginApiUser();
    LoginRequest del(method);
    del.token(token);
    EXPECT_EQ(sessions_.op(method, "", del.request, del.response), 0);
    EXPECT_TRUE(del.body()["data"].isNull());
    EXPECT_EQ(del.body()["error"]["code"], Json::Value(0));
    CSessionInfo info;
    EXPECT_FALSE(SessionStore::instance().lookup(token, info));
  }
  EXPECT_EQ(backend_.sent(proto::kLogout).size(), 2u);
}

TEST_F(NOXLoginTest, GetAnswersTheSessionNotAChallenge) {
  const std::string token = loginApiUser();
  LoginRequest get("GET");
  get.token(token);
  ASSERT_EQ(sessions_.op("GET", "", get.request, get.response), 0);
  EXPECT_EQ(get.body()["data"]["userName"].asString(), "apiuser");
  EXPECT_FALSE(get.body()["data"].isMember("challengeId"));

  LoginRequest anonymous("get");
  EXPECT_EQ(codeOf([&] { sessions_.op("get", "", anonymous.request, anonymous.response); }),
            proto::kErrNotLoggedIn);
  EXPECT_EQ(VerifyCodeStore::instance().size(), 0u) << "no challenge was issued";
}

TEST_F(NOXLoginTest, PutIsNotServedAndTouchesNothing) {
  LoginRequest put("PUT");
  put.credentials("apiuser", "s3cret-Pa55", "4");
  EXPECT_EQ(sessions_.op("PUT", "", put.request, put.response), -1);
  EXPECT_TRUE(put.body().isNull());
  EXPECT_TRUE(backend_.sent().empty());
  EXPECT_TRUE(put.connection.responseHeaders().empty());
}

TEST_F(NOXLoginTest, LoginRouteUsesTheHostDispatchAndMethodFilter) {
  CLoginOpWithVerifyCode::setExposeCodeForTests(true);
  LoginRequest get("get", "/login");
  ASSERT_EQ(console_.op("get", "", get.request, get.response), 0);
  EXPECT_TRUE(get.body()["data"].isMember("challengeId")) << "GET /login issues a challenge";

  SpecifyOpPrivData priv;
  EXPECT_TRUE(console_.isSupport("GET", "", priv));
  EXPECT_TRUE(console_.isSupport("post", "", priv));
  EXPECT_TRUE(console_.isSupport("Delete", "", priv));
  EXPECT_FALSE(console_.isSupport("PUT", "", priv));
  LoginRequest put("PUT", "/login");
  EXPECT_EQ(console_.op("PUT", "", put.request, put.response), -1);
}

// ---------------------------------------------------------------------------
// What each route's login passes on.

TEST_F(NOXLoginTest, SessionsLoginPassesItsArgumentsOnWithAnEmptyVerificationCode) {
  TraceCapture trace(TraceLevel::kTrace);
  CDeviceID device;
  device.id_ = "backend";
  CR3MPackageV3 reply;
  ASSERT_EQ(sessions_.login("u-a", "p-b", "4", "zh", device, reply, "198.51.100.7", "web"), 0);
  ASSERT_EQ(loginsSent(), 1u);
  const SentPackage sent = backend_.sent(proto::kLogin)[0];
  EXPECT_EQ(sent.cell(proto::kTagUserName)->asText(), "u-a");
  EXPECT_EQ(sent.cell(proto::kTagPassword)->asText(), "p-b");
  EXPECT_EQ(sent.cell(proto::kTagScope)->asText(), "4");
  EXPECT_EQ(sent.cell(proto::kTagLanguage)->asText(), "zh");
  EXPECT_EQ(sent.cell(proto::kTagClientAddress)->asText(), "198.51.100.7");
  EXPECT_TRUE(trace.has(TraceLevel::kDebug,
                        "login of user u-a, scope 4, language zh, from 198.51.100.7, type "
                        "\"web\", verification code none"))
      << trace.dump();
  ASSERT_EQ(reply.size(), 1u) << "the backend's reply is left in the caller's package";
}

// The console route overrides the same eight-argument slot as "/sessions"
// and does not use its eighth argument: "" and "" go on as login type and
// verification code, whatever the host gave.
TEST_F(NOXLoginTest, ConsoleLoginPassesItsArgumentsOnWithEmptyTypeAndCode) {
  TraceCapture trace(TraceLevel::kTrace);
  CDeviceID device;
  CR3MPackageV3 reply;
  CLoginOp& asHost = console_;
  ASSERT_EQ(asHost.login("u-a", "p-b", "1", "en", device, reply, "198.51.100.7", "password"), 0);
  const SentPackage sent = backend_.sent(proto::kLogin).at(0);
  EXPECT_EQ(sent.cell(proto::kTagScope)->asText(), "1");
  EXPECT_EQ(sent.cell(proto::kTagClientAddress)->asText(), "198.51.100.7");
  EXPECT_TRUE(trace.has(TraceLevel::kDebug,
                        "login of user u-a, scope 1, language en, from 198.51.100.7, type "
                        "\"\", verification code none"))
      << trace.dump();
}

TEST_F(NOXLoginTest, BackendRefusalPassesUpUnchanged) {
  backend_.fail(proto::kLogin, proto::kErrScopeDenied);
  CDeviceID device;
  CR3MPackageV3 reply;
  EXPECT_EQ(codeOf([&] { sessions_.login("u", "p", "4", "en", device, reply, "a", "t"); }),
            proto::kErrScopeDenied);
}

// ---------------------------------------------------------------------------
// updateSessionFile: the labels, their order, the key, the pause.

struct LabelCase {
  LoginReply reply;
  int state;
  int kind;
  const char* why;
};

LoginReply cells(std::map<unsigned short, int> numbers) {
  LoginReply reply;
  reply.numbers = std::move(numbers);
  return reply;
}

const LabelCase kLabelCases[] = {
    {cells({{76, 4}, {64, 5}}), 8, 8, "76 = 4 wins; 64 is not consulted"},
    {cells({{76, 3}}), 8, 8, "76 = 3 marks too"},
    {cells({{76, 4}, {78, 2}}), 8, 8, "78 is not consulted on a marked login"},
    {cells({{76, 3}, {64, 3}, {78, 2}}), 8, 8, "all three present: 76 still wins"},
    {cells({{76, 2}, {64, 3}}), 1, 7, "76 = 2 falls through to 64"},
    {cells({{76, 0}}), 0, 7, "76 = 0 falls through"},
    {cells({{76, 5}, {78, 2}}), 2, 7, "76 = 5 falls through to 78"},
    {cells({{64, 3}}), 1, 7, "64: 3 -> 1"},
    {cells({{64, 4}}), 3, 7, "64: 4 -> 3"},
    {cells({{64, 5}}), 4, 7, "64: 5 -> 4"},
    {cells({{64, 6}}), 0, 7, "64: anything else -> 0"},
    {cells({{64, 0}}), 0, 7, "64: 0 -> 0"},
    {cells({{64, 1}}), 0, 7, "64: 1 -> 0"},
    {cells({{64, 5}, {78, 2}}), 2, 7, "78 = 2 overrides 64"},
    {cells({{78, 2}}), 2, 7, "78 = 2 alone"},
    {cells({{64, 4}, {78, 1}}), 3, 7, "78 other than 2 leaves 64's state"},
    {cells({{78, 3}}), 0, 7, "78 = 3 alone: state 0"},
    {cells({}), 0, 7, "no cell at all: state 0, kind 7"},
};

// What addSessionInfo saw when it was called.
struct Registration {
  std::string key;
  int kind = -1;
  bool labelledBefore = false;
};

class UpdateSessionFileTest : public NOXLoginTest {
 protected:
  void SetUp() override {
    NOXLoginTest::SetUp();
    session_ = std::make_shared<HttpSession>("id-7f3a");
    std::shared_ptr<HttpSession> session = session_;
    setRedirectInfoObserver([this, session](const std::string& key, int kind) {
      Registration r;
      r.key = key;
      r.kind = kind;
      r.labelledBefore = session->hasAttribute(CSessionInfo::SESS_STAT_K);
      registrations_.push_back(r);
    });
  }
  std::shared_ptr<HttpSession> session_;
  std::vector<Registration> registrations_;
};

TEST_F(UpdateSessionFileTest, LabelsEachReplyAsTheBackendMeansIt) {
  for (const LabelCase& c : kLabelCases) {
    SCOPED_TRACE(c.why);
    session_ = std::make_shared<HttpSession>("id-" + std::to_string(&c - kLabelCases));
    std::shared_ptr<HttpSession> session = session_;
    registrations_.clear();
    setRedirectInfoObserver([this, session](const std::string& key, int kind) {
      registrations_.push_back({key, kind, session->hasAttribute(CSessionInfo::SESS_STAT_K)});
    });
    g_pauses = 0;
    CR3MPackageV3 reply;
    c.reply.fill(reply);
    const size_t cellsBefore = reply[0].cellCount();

    sessions_.updateSessionFile("session_", *session_, reply);

    EXPECT_EQ(session_->getAttribute(CSessionInfo::SESS_STAT_K), Json::Value(c.state));
    EXPECT_TRUE(session_->getAttribute(CSessionInfo::SESS_STAT_K).isInt());
    ASSERT_EQ(registrations_.size(), 1u);
    EXPECT_EQ(registrations_[0].key, "session_" + session_->getId());
    EXPECT_EQ(registrations_[0].kind, c.kind);
    EXPECT_EQ(RedirectInfoMgr::getSessionInfo("session_" + session_->getId()), c.kind);
    // A marked login is labelled before it is registered, an ordinary one
    // after: the order other gateway nodes have always seen.
    EXPECT_EQ(registrations_[0].labelledBefore, c.kind == 8);
    EXPECT_EQ(g_pauses.load(), 1) << "one second's pause on every path";
    EXPECT_EQ(reply[0].cellCount(), cellsBefore) << "reading adds no cells";
  }
  EXPECT_EQ(g_otherSleeps.load(), 0);
}

TEST_F(UpdateSessionFileTest, KeyIsThePrefixFollowedDirectlyByTheIdentifier) {
  CR3MPackageV3 reply;
  cells({{76, 3}}).fill(reply);
  sessions_.updateSessionFile("node-b:", *session_, reply);
  CR3MPackageV3 ordinary;
  cells({}).fill(ordinary);
  sessions_.updateSessionFile("", *session_, ordinary);
  ASSERT_EQ(registrations_.size(), 2u);
  EXPECT_EQ(registrations_[0].key, "node-b:id-7f3a");
  EXPECT_EQ(registrations_[1].key, "id-7f3a");
}

TEST_F(UpdateSessionFileTest, OtherNumericTypesOfTheMarkCountToo) {
  CR3MPackageV3 reply;
  CR3MRecordV3& record = reply.addRecord(proto::kLogin, proto::kWord);
  unsigned char four = 4;
  record[76].set_i(CTLVCell::TLV_UINT8, 76, &four, 1);
  sessions_.updateSessionFile("session_", *session_, reply);
  EXPECT_EQ(session_->getAttribute(CSessionInfo::SESS_STAT_K), Json::Value(8));
}

TEST_F(UpdateSessionFileTest, TextualMarkThrowsTheCellErrorAndLabelsNothing) {
  CR3MPackageV3 reply;
  LoginReply textual;
  textual.texts[76] = "4";
  textual.numbers[64] = 3;
  textual.fill(reply);
  try {
    sessions_.updateSessionFile("session_", *session_, reply);
    FAIL() << "no exception";
  } catch (const QPNExceptionWithErrCode_&) {
    FAIL() << "the cell's own error was expected";
  } catch (const QPNException& e) {
    EXPECT_STREQ(e.what(), "Exception:CTLVCell isn't numerical type! tag equal to 76");
  }
  EXPECT_FALSE(session_->hasAttribute(CSessionInfo::SESS_STAT_K));
  EXPECT_TRUE(registrations_.empty());
  EXPECT_EQ(g_pauses.load(), 0);
}

TEST_F(UpdateSessionFileTest, TextualStateCellsThrowTheirOwnTag) {
  struct {
    unsigned short textTag;
    const char* message;
  } const cases[] = {
      {64, "Exception:CTLVCell isn't numerical type! tag equal to 64"},
      {78, "Exception:CTLVCell isn't numerical type! tag equal to 78"},
  };
  for (const auto& c : cases) {
    registrations_.clear();
    CR3MPackageV3 reply;
    LoginReply textual;
    textual.texts[c.textTag] = "2";
    textual.fill(reply);
    try {
      sessions_.updateSessionFile("session_", *session_, reply);
      ADD_FAILURE() << "no exception for tag " << c.textTag;
    } catch (const QPNException& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
    EXPECT_TRUE(registrations_.empty());
  }
  EXPECT_EQ(g_pauses.load(), 0);
}

TEST_F(UpdateSessionFileTest, TextualStateCellsAreNotReadOnAMarkedLogin) {
  CR3MPackageV3 reply;
  LoginReply marked;
  marked.numbers[76] = 3;
  marked.texts[64] = "x";
  marked.texts[78] = "y";
  marked.fill(reply);
  EXPECT_NO_THROW(sessions_.updateSessionFile("session_", *session_, reply));
  EXPECT_EQ(session_->getAttribute(CSessionInfo::SESS_STAT_K), Json::Value(8));
}

TEST_F(UpdateSessionFileTest, ReplyWithoutRecordsThrowsTheRecordError) {
  CR3MPackageV3 empty;
  try {
    sessions_.updateSessionFile("session_", *session_, empty);
    FAIL() << "no exception";
  } catch (const QPNException& e) {
    EXPECT_STREQ(e.what(), "Exception:record don't exist, index is 0");
  }
  EXPECT_TRUE(registrations_.empty());
}

TEST_F(UpdateSessionFileTest, TracesAndLogsItsWork) {
  TraceCapture trace(TraceLevel::kTrace);
  CR3MPackageV3 reply;
  cells({{64, 3}}).fill(reply);
  sessions_.updateSessionFile("session_", *session_, reply);
  EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter NOXLogin::updateSessionFile...",
                                                      "leave NOXLogin::updateSessionFile: OK"}));
  std::unique_ptr<TraceRecord> info = trace.find("NOXLogin::updateSessionFile.");
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->level, TraceLevel::kInfo);
  EXPECT_EQ(info->function, "updateSessionFile");
  EXPECT_EQ(info->module, 11);
}

TEST_F(UpdateSessionFileTest, CellErrorLeavesTheGuardsVerdictOk) {
  // An exception passing through is not logged by the guard.
  TraceCapture trace(TraceLevel::kTrace);
  CR3MPackageV3 reply;
  LoginReply textual;
  textual.texts[76] = "3";
  textual.fill(reply);
  EXPECT_THROW(sessions_.updateSessionFile("session_", *session_, reply), QPNException);
  EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter NOXLogin::updateSessionFile...",
                                                      "leave NOXLogin::updateSessionFile: OK"}));
}

TEST_F(NOXLoginTest, FailedLabellingThroughTheHostLeavesNoSession) {
  LoginReply reply;
  reply.texts[76] = "4";
  answerLogin(reply);
  LoginRequest post("POST");
  post.credentials("apiuser", "s3cret-Pa55", "4");
  EXPECT_THROW(sessions_.op("POST", "", post.request, post.response), QPNException);
  EXPECT_EQ(SessionStore::instance().size(), 0u);
  EXPECT_TRUE(post.answerHeader("X-Auth-Token").empty());
}

// ---------------------------------------------------------------------------
// Registration and logs.

TEST(NOXLoginRegistrationTest, RegistersSessionsThenLogin) {
  CSpecifyProc proc;
  EXPECT_EQ(NOXRegisterOperations(&proc), 0);
  ASSERT_GE(proc.routes().size(), 2u);
  const CSpecifyProc::Route& first = proc.routes()[0];
  EXPECT_EQ(first.url, "/sessions");
  EXPECT_EQ(first.interfaceVersion, "");
  EXPECT_TRUE(first.flag);
  EXPECT_NE(dynamic_cast<NOXLogin*>(first.op), nullptr);
  const CSpecifyProc::Route& second = proc.routes()[1];
  EXPECT_EQ(second.url, "/login");
  EXPECT_EQ(second.interfaceVersion, "");
  EXPECT_TRUE(second.flag);
  EXPECT_NE(dynamic_cast<NOXLoginOpWithVerifyCode*>(second.op), nullptr);
  EXPECT_NE(second.op, first.op);
  // The route is plural; the singular is not served.
  EXPECT_EQ(proc.find("/session", ""), nullptr);
}

TEST_F(NOXLoginTest, NoLogRecordCarriesThePassword) {
  const std::string password = "Pw-7gQ2-unique-!";
  TraceCapture trace(TraceLevel::kTrace);
  acceptOnly(password);
  for (const char* attempt : {"wrong-1", "wrong-2", "wrong-3", "wrong-4"}) {
    LoginRequest post("POST");
    post.credentials("apiuser", std::string(attempt) + password, "4");
    codeOf([&] { sessions_.op("POST", "", post.request, post.response); });
  }
  g_testNow += 60;
  LoginRequest good("POST");
  good.credentials("apiuser", password, "4");
  ASSERT_EQ(sessions_.op("POST", "", good.request, good.response), 0);
  LoginRequest badScope("POST");
  badScope.credentials("apiuser", password, "1");
  codeOf([&] { sessions_.op("POST", "", badScope.request, badScope.response); });
  LoginRequest del("DELETE");
  del.token(good.body()["data"]["token"].asString());
  ASSERT_EQ(sessions_.op("DELETE", "", del.request, del.response), 0);

  const std::vector<TraceRecord> records = trace.records();
  EXPECT_GT(records.size(), 10u);
  for (const TraceRecord& r : records) {
    EXPECT_EQ(r.text.find(password), std::string::npos) << r.text;
    EXPECT_EQ(r.function.find(password), std::string::npos) << r.function;
  }
}

}  // namespace
