// nox-backend's server and the gateway's RemoteBackend together, in one
// process: answers as in process, uploads staged on the backend's side, bad
// frames, a stopped backend, and a backend that does not answer in time.
#include "backend_server.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "host_functions.h"
#include "remote_fixture.h"
#include "test_pki.h"
#include "trace_capture.h"
#include "wire_socket.h"

namespace {

void importTarget(CR3MRecordV3& r) { r[0].setUInt32(0, proto::kImportTarget); }

// The whole file at `path` ("" when it cannot be read).
std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Reads what the server sends until it closes; true when it closed within
// 30 s (it always should after a bad frame).
bool closedByServer(int fd) {
  tlvwire::FrameHeader header;
  std::string body;
  std::string error;
  const wiresock::IoResult io = wiresock::readFrame(fd, wiresock::deadlineIn(30000),
                                                    wiresock::deadlineIn(30000), &header, &body,
                                                    &error);
  return io == wiresock::IoResult::kClosed;
}

using BackendServerTest = RemoteBackendTest;

TEST_F(BackendServerTest, AnswersAsTheBackendInProcess) {
  const uint32_t list = proto::moCommand(proto::kTaskObjType, proto::kMoList);
  auto fill = [](CR3MRecordV3& r) {
    r[proto::kTagSort].setString(proto::kTagSort, "-status");
    r[proto::kTagLimit].setUInt32(proto::kTagLimit, 7);
  };
  CR3MPackageV3 direct;
  CR3MPackageV3 remote;
  ASSERT_EQ(send(list, fill, &direct), 0);
  ASSERT_EQ(remoteSend(list, fill, &remote), 0);
  ASSERT_EQ(remote.size(), 7u);
  EXPECT_EQ(tlvwire::packageBytes(remote), tlvwire::packageBytes(direct));
  // A refusal travels as its code, with an empty reply.
  CR3MPackageV3 missing;
  EXPECT_EQ(remoteSend(proto::moCommand(proto::kTaskObjType, proto::kMoGetById),
                       [](CR3MRecordV3& r) { r[0].setString(0, "no-such-task"); }, &missing),
            proto::kErrNotFound);
  EXPECT_EQ(missing.size(), 0u);
  EXPECT_EQ(remoteSend(0x12345678, nullptr), proto::kErrUnknownCommand);
}

TEST_F(BackendServerTest, UploadsGoToTheBackendWhenTheHostWritesThem) {
  // The path handed to the host is in the local folder, under the backend's
  // name for it.
  CR3MPackageV3 reply;
  ASSERT_EQ(remoteSend(proto::kCertTempPath, importTarget, &reply), 0);
  const std::string local = textCell(reply, 0, proto::kTagPath);
  EXPECT_EQ(local.rfind(localStaging_ + "/cert-", 0), 0u) << local;
  EXPECT_EQ(local.size(), localStaging_.size() + std::string("/cert-.upload").size() + 32);
  // The host's write sends the bytes on at once (the seam): the backend has
  // them under the same name before any check, and the local file is there
  // for the plug-in's own steps (its mode).
  const std::string der = "not a certificate";
  ASSERT_EQ(writeFile(local.c_str(), der.data(), static_cast<unsigned int>(der.size())),
            static_cast<int>(der.size()));
  const std::string name = local.substr(localStaging_.size() + 1);
  EXPECT_EQ(folderNames(dataDir() + "/tmp"), std::vector<std::string>{name});
  EXPECT_EQ(readWhole(dataDir() + "/tmp/" + name), der);
  EXPECT_TRUE(fileExists(local));
  // The check goes with the backend's path: its verdict is on those bytes.
  EXPECT_EQ(remoteSend(proto::kCertCheck,
                       [&](CR3MRecordV3& r) {
                         importTarget(r);
                         r[proto::kTagPath].setString(proto::kTagPath, local);
                       }),
            0x60E01D01);
  EXPECT_FALSE(fileExists(local));
  EXPECT_TRUE(folderNames(dataDir() + "/tmp").empty());

  const TestCert ca = makeCert(CertProfile());
  const std::string pem = ca.pem();
  std::string stagedAt;
  EXPECT_EQ(remoteImport(proto::kCertTempPath, proto::kCertCheck, pem, &stagedAt), 0);
  EXPECT_FALSE(fileExists(stagedAt)) << "the local copy is removed once sent";
  EXPECT_EQ(folderNames(dataDir() + "/ca").size(), 1u);
  EXPECT_TRUE(folderNames(dataDir() + "/tmp").empty());
  EXPECT_EQ(remoteImport(proto::kCrlImportPath, proto::kCrlSave, makeCrl(ca, 86400, {1})), 0);
  EXPECT_EQ(folderNames(dataDir() + "/crl").size(), 2u);  // the CRL and incoming/

  // A path the backend never handed out is passed unchanged, and refused by
  // the backend as outside its folders.
  EXPECT_EQ(remoteSend(proto::kCertCheck,
                       [&](CR3MRecordV3& r) {
                         importTarget(r);
                         r[proto::kTagPath].setString(proto::kTagPath,
                                                      localStaging_ + "/cert-unknown.upload");
                       }),
            proto::kErrInvalidArgument);
  // A path handed out but never written: the backend reports it missing.
  ASSERT_EQ(remoteSend(proto::kCertTempPath, importTarget, &reply), 0);
  const std::string unwritten = textCell(reply, 0, proto::kTagPath);
  EXPECT_EQ(remoteSend(proto::kCertCheck,
                       [&](CR3MRecordV3& r) {
                         importTarget(r);
                         r[proto::kTagPath].setString(proto::kTagPath, unwritten);
                       }),
            proto::kErrNotFound);
}

TEST_F(BackendServerTest, AnUploadWhoseBackendIsGoneIsNotAvailable) {
  CR3MPackageV3 reply;
  ASSERT_EQ(remoteSend(proto::kCertTempPath, importTarget, &reply), 0);
  const std::string local = textCell(reply, 0, proto::kTagPath);
  server_->stop();
  TraceCapture trace(TraceLevel::kError);
  // The local write succeeds; the store fails and is kept for the check.
  const std::string pem = makeCert(CertProfile()).pem();
  EXPECT_EQ(writeFile(local.c_str(), pem.data(), static_cast<unsigned int>(pem.size())),
            static_cast<int>(pem.size()));
  bool logged = false;
  for (const std::string& line : trace.logs(TraceLevel::kError)) {
    logged = logged || (line.find("backend 127.0.0.1:") == 0 &&
                        line.find(" not available for the upload /") != std::string::npos &&
                        line.find("/tmp/cert-") != std::string::npos);
  }
  EXPECT_TRUE(logged) << trace.dump();
  EXPECT_EQ(remoteSend(proto::kCertCheck,
                       [&](CR3MRecordV3& r) {
                         importTarget(r);
                         r[proto::kTagPath].setString(proto::kTagPath, local);
                       }),
            kErrBackendUnavailable);
  EXPECT_FALSE(fileExists(local)) << "the upload is used once, whatever happens";
}

// A backend whose staging folder is /srv/nox/tmp (never touched) that
// answers every command with text cells that look like upload paths in it,
// and keeps every package it was sent.
class LookalikeBackend : public TlvBackend {
 public:
  static std::string dir() { return "/srv/nox/tmp"; }

  long long handle(const TlvCall&, const CR3MPackageV3& request, CR3MPackageV3& reply) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      received_.push_back(request);
    }
    const uint32_t command = request.recordAt(0).command();
    CR3MRecordV3& first = reply.addRecord(command, proto::kWord);
    first[proto::kTagPath].setString(proto::kTagPath, dir() + "/cert-handed-out.upload");
    first[proto::kTagTaskName].setString(proto::kTagTaskName, dir() + "/cert-lookalike.upload");
    CR3MRecordV3& second = reply.addRecord(command, proto::kWord);
    second[proto::kTagPath].setString(proto::kTagPath, dir() + "/crl-second-record.upload");
    return 0;
  }
  CR3MPackageV3 last() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_.back();
  }

 private:
  std::mutex mutex_;
  std::vector<CR3MPackageV3> received_;
};

TEST_F(BackendServerTest, ACellThatMerelyLooksLikeAStagingPathIsNeverRewritten) {
  auto lookalike = std::make_shared<LookalikeBackend>();
  RunningServer server(lookalike, {LookalikeBackend::dir()});
  ASSERT_GT(server.port(), 0) << server.error();
  RemoteBackendOptions options;
  options.host = "127.0.0.1";
  options.port = server.port();
  options.localStagingDir = localStaging_;
  std::shared_ptr<RemoteBackend> remote = RemoteBackend::create(options);
  CDeviceID device;
  UserContext user;
  const TlvCall call{device, user, "v1", 30, CommunicationTarget::TARGET_BACKEND};
  auto request = [](uint32_t command, unsigned short tag, const std::string& text) {
    CR3MPackageV3 package;
    CR3MRecordV3& r = package.addRecord(command, proto::kWord);
    importTarget(r);
    r[tag].setString(tag, text);
    return package;
  };
  const std::string lookalikePath = LookalikeBackend::dir() + "/cert-lookalike.upload";
  const std::string handedOut = LookalikeBackend::dir() + "/cert-handed-out.upload";
  const std::string local = localStaging_ + "/cert-handed-out.upload";
  const uint32_t list = proto::moCommand(proto::kTaskObjType, proto::kMoList);

  // Replies: a task list passes as the backend made it, path cell and all.
  CR3MPackageV3 reply;
  ASSERT_EQ(remote->handle(call, request(list, proto::kTagFilter, "{}"), reply), 0);
  EXPECT_EQ(textCell(reply, 0, proto::kTagPath), handedOut);
  EXPECT_EQ(textCell(reply, 0, proto::kTagTaskName), lookalikePath);
  // The temporary path: only record 0's path cell becomes the local one.
  reply.clear();
  ASSERT_EQ(remote->handle(call, request(proto::kCertTempPath, 1, "x"), reply), 0);
  EXPECT_EQ(textCell(reply, 0, proto::kTagPath), local);
  EXPECT_EQ(textCell(reply, 0, proto::kTagTaskName), lookalikePath);
  EXPECT_EQ(textCell(reply, 1, proto::kTagPath),
            LookalikeBackend::dir() + "/crl-second-record.upload");

  // Requests: the local path anywhere but a check's path cell goes as it is.
  const CR3MPackageV3 inFilter = request(list, proto::kTagFilter, local);
  ASSERT_EQ(remote->handle(call, inFilter, reply), 0);
  EXPECT_EQ(tlvwire::packageBytes(lookalike->last()), tlvwire::packageBytes(inFilter));
  const CR3MPackageV3 inAnotherCommand = request(list, proto::kTagPath, local);
  ASSERT_EQ(remote->handle(call, inAnotherCommand, reply), 0);
  EXPECT_EQ(tlvwire::packageBytes(lookalike->last()), tlvwire::packageBytes(inAnotherCommand));
  CR3MPackageV3 inAnotherCell = request(proto::kCertCheck, proto::kTagTaskName, local);
  inAnotherCell[0][proto::kTagPath].setString(proto::kTagPath, localStaging_ + "/cert-x.upload");
  ASSERT_EQ(remote->handle(call, inAnotherCell, reply), 0);
  EXPECT_EQ(tlvwire::packageBytes(lookalike->last()), tlvwire::packageBytes(inAnotherCell));
  // The check's path cell with exactly the handed-out path: the backend's.
  ASSERT_EQ(remote->handle(call, request(proto::kCertCheck, proto::kTagPath, local), reply), 0);
  EXPECT_EQ(tlvwire::packageBytes(lookalike->last()),
            tlvwire::packageBytes(request(proto::kCertCheck, proto::kTagPath, handedOut)));
  // Used once: the same check again goes as it is.
  ASSERT_EQ(remote->handle(call, request(proto::kCertCheck, proto::kTagPath, local), reply), 0);
  CR3MPackageV3 again = lookalike->last();
  EXPECT_EQ(textCell(again, 0, proto::kTagPath), local);
}

TEST_F(BackendServerTest, StoreFramesOutsideTheStagingFoldersAreRefused) {
  // A client that is not our RemoteBackend asks for a file elsewhere.
  std::string error;
  const int fd = wiresock::connectTcp("127.0.0.1", server_->port(), 5000, &error);
  ASSERT_GE(fd, 0) << error;
  for (const std::string& path : {dataDir() + "/nox.db", dataDir() + "/tmp/../nox.db",
                                  dataDir() + "/tmp/sub/x", std::string("/tmp/x")}) {
    const std::string body = tlvwire::storeFileBody(path, "x", 1);
    ASSERT_EQ(wiresock::sendAll(fd, tlvwire::frame(tlvwire::FrameKind::kStoreFile, 9, body),
                                wiresock::deadlineIn(5000)),
              wiresock::IoResult::kOk);
    tlvwire::FrameHeader header;
    std::string answer;
    ASSERT_EQ(wiresock::readFrame(fd, wiresock::deadlineIn(30000), wiresock::deadlineIn(30000),
                                  &header, &answer, &error),
              wiresock::IoResult::kOk)
        << error;
    long long code = 0;
    ASSERT_TRUE(tlvwire::parseCodeBody(answer, &code, &error)) << error;
    EXPECT_EQ(code, proto::kErrInvalidArgument) << path;
  }
  close(fd);
  EXPECT_GT(sql("SELECT COUNT(*) FROM users").size(), 0u);  // the database is intact
}

TEST_F(BackendServerTest, BadFramesCloseTheirConnectionWithALogLine) {
  TraceCapture trace(TraceLevel::kWarn);
  struct Case {
    const char* what;
    std::string bytes;
  } cases[] = {
      {"an HTTP request", "GET / HTTP/1.1\r\nHost: x\r\n\r\n"},
      {"a frame beyond the limit",
       std::string("\xff\xff\xff\x7f", 4) + tlvwire::frame(tlvwire::FrameKind::kCall, 1, "")
                                                .substr(4, 8)},
      {"a call that is no call", tlvwire::frame(tlvwire::FrameKind::kCall, 1, "garbage")},
      {"an answer sent by a client", tlvwire::frame(tlvwire::FrameKind::kPong, 1, "")},
  };
  for (const Case& c : cases) {
    std::string error;
    const int fd = wiresock::connectTcp("127.0.0.1", server_->port(), 5000, &error);
    ASSERT_GE(fd, 0) << error;
    ASSERT_EQ(wiresock::sendAll(fd, c.bytes, wiresock::deadlineIn(5000)), wiresock::IoResult::kOk);
    EXPECT_TRUE(closedByServer(fd)) << c.what;
    close(fd);
  }
  int closing = 0;
  for (const std::string& line : trace.logs(TraceLevel::kWarn)) {
    if (line.find("closing the connection from 127.0.0.1:") == 0) ++closing;
  }
  EXPECT_EQ(closing, 4) << trace.dump();
  // The server serves on.
  EXPECT_EQ(remoteSend(static_cast<uint32_t>(proto::kAlarmCount), nullptr), 0);
  EXPECT_TRUE(remote_->reachable(5000));
}

// Says hello on `fd` and reads the answer; true when it came.
bool greeted(int fd) {
  if (wiresock::sendAll(fd, tlvwire::frame(tlvwire::FrameKind::kHello, 5, std::string()),
                        wiresock::deadlineIn(10000)) != wiresock::IoResult::kOk) {
    return false;
  }
  tlvwire::FrameHeader header;
  std::string body;
  std::string error;
  return wiresock::readFrame(fd, wiresock::deadlineIn(30000), wiresock::deadlineIn(30000), &header,
                             &body, &error) == wiresock::IoResult::kOk &&
         header.kind == tlvwire::FrameKind::kHelloReply && header.callId == 5;
}

TEST_F(BackendServerTest, ManyConnectionsAtOnceAndTheLimit) {
  // 64 connections open together, each served.
  std::vector<int> fds;
  for (int i = 0; i < 64; ++i) {
    std::string error;
    const int fd = wiresock::connectTcp("127.0.0.1", server_->port(), 5000, &error);
    ASSERT_GE(fd, 0) << error;
    fds.push_back(fd);
  }
  int served = 0;
  for (int fd : fds) served += greeted(fd) ? 1 : 0;
  EXPECT_EQ(served, 64);
  for (int fd : fds) close(fd);

  // A server for two: the third connection is closed at once, with a line.
  TraceCapture trace(TraceLevel::kWarn);
  RunningServer small(backend_, backend_->stagingFolders(), 0, 2);
  ASSERT_GT(small.port(), 0) << small.error();
  std::string error;
  const int first = wiresock::connectTcp("127.0.0.1", small.port(), 5000, &error);
  const int second = wiresock::connectTcp("127.0.0.1", small.port(), 5000, &error);
  ASSERT_TRUE(first >= 0 && second >= 0) << error;
  // Both are taken in before the third arrives: each has been answered.
  EXPECT_TRUE(greeted(first));
  EXPECT_TRUE(greeted(second));
  const int third = wiresock::connectTcp("127.0.0.1", small.port(), 5000, &error);
  ASSERT_GE(third, 0) << error;
  EXPECT_TRUE(closedByServer(third));
  bool logged = false;
  for (const std::string& line : trace.logs(TraceLevel::kWarn)) {
    logged = logged || (line.find("closing the connection from 127.0.0.1:") == 0 &&
                        line.find(": already 2 connections") != std::string::npos);
  }
  EXPECT_TRUE(logged) << trace.dump();
  EXPECT_TRUE(greeted(first)) << "the connections within the limit serve on";
  for (int fd : {first, second, third}) close(fd);
}

TEST_F(BackendServerTest, StoppedBackendIsUnavailableUntilItIsBack) {
  TraceCapture trace(TraceLevel::kError);
  ASSERT_EQ(remoteSend(static_cast<uint32_t>(proto::kAlarmCount), nullptr), 0);
  const int port = server_->port();
  server_->stop();
  // The kept connection was closed by the server; the new one is refused.
  EXPECT_EQ(remoteSend(static_cast<uint32_t>(proto::kAlarmCount), nullptr),
            kErrBackendUnavailable);
  EXPECT_FALSE(remote_->reachable(2000));
  bool logged = false;
  for (const std::string& line : trace.logs(TraceLevel::kError)) {
    logged = logged || line.find("backend 127.0.0.1:" + std::to_string(port) +
                                 " not available for command 0x00C90096") == 0;
  }
  EXPECT_TRUE(logged) << trace.dump();

  server_ = std::make_unique<RunningServer>(backend_, backend_->stagingFolders(), port);
  ASSERT_EQ(server_->port(), port) << server_->error();
  CR3MPackageV3 reply;
  EXPECT_EQ(remoteSend(static_cast<uint32_t>(proto::kAlarmCount), nullptr, &reply), 0);
  EXPECT_EQ(intCell(reply, 0, proto::kTagTotal), 120);
}

// A backend that answers only when the test lets it.
class HeldBackend : public TlvBackend {
 public:
  long long handle(const TlvCall&, const CR3MPackageV3&, CR3MPackageV3& reply) override {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return released_; });
    reply.addRecord(1, 13);
    return 0;
  }
  void waitForCall() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return waiting_ > 0; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool released_ = false;
};

TEST_F(BackendServerTest, NoAnswerWithinTheCallsTimeOutIsATimeOut) {
  auto held = std::make_shared<HeldBackend>();
  RunningServer slow(held, {});
  ASSERT_GT(slow.port(), 0) << slow.error();
  RemoteBackendOptions options;
  options.host = "127.0.0.1";
  options.port = slow.port();
  std::shared_ptr<RemoteBackend> remote = RemoteBackend::create(options);
  CR3MPackageV3 request;
  request.addRecord(1, 13);
  CR3MPackageV3 reply;
  CDeviceID device;
  UserContext user;
  const TlvCall call{device, user, "v1", 1, CommunicationTarget::TARGET_BACKEND};
  EXPECT_EQ(remote->handle(call, request, reply), kErrBackendTimeout);
  EXPECT_EQ(reply.size(), 0u);
  held->waitForCall();
  held->release();
  // The late answer went to a connection that was given up; the next call
  // gets its own answer.
  EXPECT_EQ(remote->handle(call, request, reply), 0);
  EXPECT_EQ(reply.size(), 1u);
}

TEST(RemoteBackendAddressTest, ParsesTcpAddresses) {
  struct Case {
    const char* url;
    bool ok;
    const char* host;
    int port;
  } cases[] = {
      {"tcp://127.0.0.1:7070", true, "127.0.0.1", 7070},
      {"tcp://backend.example:1", true, "backend.example", 1},
      {"tcp://[::1]:7070", true, "::1", 7070},
      {"tcp://127.0.0.1:0", false, "", 0},      // port 0 cannot be reached
      {"tcp://127.0.0.1:65536", false, "", 0},  // beyond the port range
      {"tcp://127.0.0.1", false, "", 0},        // no port
      {"tcp://:7070", false, "", 0},            // no host
      {"http://127.0.0.1:7070", false, "", 0},  // another scheme
      {"tcp://127.0.0.1:70x", false, "", 0},    // not a number
  };
  for (const Case& c : cases) {
    RemoteBackendOptions options;
    std::string error;
    EXPECT_EQ(RemoteBackend::parseAddress(c.url, &options, &error), c.ok) << c.url;
    if (c.ok) {
      EXPECT_EQ(options.host, c.host);
      EXPECT_EQ(options.port, c.port);
    } else {
      EXPECT_NE(error.find("tcp://HOST:PORT"), std::string::npos) << error;
    }
  }
}

}  // namespace
