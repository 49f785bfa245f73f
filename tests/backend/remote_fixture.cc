#include "remote_fixture.h"

RunningServer::RunningServer(std::shared_ptr<TlvBackend> backend,
                             std::vector<std::string> stagingDirs, int port) {
  BackendServerOptions options;
  options.port = port;
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
  server_ = std::make_unique<RunningServer>(backend_, backend_->stagingFolders());
  ASSERT_GT(server_->port(), 0) << server_->error();
  remote_ = connect();
}

void RemoteBackendTest::TearDown() {
  remote_.reset();
  server_.reset();
  BackendTest::TearDown();
}

std::shared_ptr<RemoteBackend> RemoteBackendTest::connect(int poolSize) {
  RemoteBackendOptions options;
  options.host = "127.0.0.1";
  options.port = server_->port();
  options.poolSize = poolSize;
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
