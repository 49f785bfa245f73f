#include "remote_fixture.h"

#include <sys/stat.h>

#include <cstdlib>

#include "host_functions.h"

RunningServer::RunningServer(std::shared_ptr<TlvBackend> backend,
                             std::vector<std::string> stagingDirs, int port,
                             int maxConnections) {
  BackendServerOptions options;
  options.port = port;
  options.maxConnections = maxConnections;
  options.stagingDirs = std::move(stagingDirs);
  server_ = std::make_unique<BackendServer>(std::move(backend), options);
  if (!server_->start(&error_)) return;
  port_ = server_->port();
  thread_ = std::thread([this] { server_->run(); });
}

void RunningServer::stop() {
  if (server_) server_->stop();
  if (thread_.joinable()) thread_.join();
  server_.reset();
}

void RemoteBackendTest::SetUp() {
  BackendTest::SetUp();
  localStaging_ = folder_.path() + "/gateway-staging";
  ASSERT_EQ(mkdir(localStaging_.c_str(), 0700), 0);
  char* real = realpath(localStaging_.c_str(), nullptr);
  ASSERT_NE(real, nullptr);
  localStaging_ = real;
  free(real);
  server_ = std::make_unique<RunningServer>(backend_, backend_->stagingFolders());
  ASSERT_GT(server_->port(), 0) << server_->error();
  remote_ = connect();
  installTlvBackend(remote_);
}

void RemoteBackendTest::TearDown() {
  installTlvBackend(nullptr);
  remote_.reset();
  server_.reset();
  BackendTest::TearDown();
}

std::shared_ptr<RemoteBackend> RemoteBackendTest::connect(int poolSize) {
  RemoteBackendOptions options;
  options.host = "127.0.0.1";
  options.port = server_->port();
  options.poolSize = poolSize;
  options.localStagingDir = localStaging_;
  return RemoteBackend::create(options);
}

long long RemoteBackendTest::remoteSend(uint32_t command, const Fill& fill, CR3MPackageV3* reply,
                                        int timeout) {
  CR3MPackageV3 request;
  CR3MRecordV3& record = request.addRecord(command, proto::kWord);
  if (fill) fill(record);
  CR3MPackageV3 local;
  CDeviceID device;
  UserContext context;
  context.userName_ = "admin";
  context.clientAddress_ = "127.0.0.1";
  TlvCall call{device, context, "v1", timeout, CommunicationTarget::TARGET_BACKEND};
  return remote_->handle(call, request, reply != nullptr ? *reply : local);
}

long long RemoteBackendTest::remoteImport(uint32_t pathCommand, uint32_t checkCommand,
                                         const std::string& bytes, std::string* stagedAt) {
  auto target = [](CR3MRecordV3& r) { r[0].setUInt32(0, proto::kImportTarget); };
  CR3MPackageV3 reply;
  const long long code = remoteSend(pathCommand, target, &reply);
  if (code != 0) return code;
  const std::string path = textCell(reply, 0, proto::kTagPath);
  if (stagedAt != nullptr) *stagedAt = path;
  if (writeFile(path.c_str(), bytes.data(), static_cast<unsigned int>(bytes.size())) < 0) {
    return -1;
  }
  return remoteSend(checkCommand, [&](CR3MRecordV3& r) {
    target(r);
    r[proto::kTagPath].setString(proto::kTagPath, path);
  });
}
