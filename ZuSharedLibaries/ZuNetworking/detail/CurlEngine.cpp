#include "ZuNetworking/detail/CurlEngine.hpp"

#include <openssl/ssl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <utility>

#include "ZuFoundation/FatalError.hpp"
#include "ZuFoundation/detail/Posix.hpp"
#include "ZuNetworking/detail/TransportError.hpp"
#include "ZuNetworking/detail/TrustedAuthorities.hpp"

namespace zu::detail {

/// Everything one running request needs; owned by its task until `resume()`, then by the engine.
struct Transfer {
  using Clock = std::chrono::steady_clock;

  ~Transfer() {
    if (!downloadPath.empty()) ::unlink(downloadPath.c_str());
  }
  bool delegated() const { return !dataCompletion && !downloadCompletion; }
  const std::string& url() const { return task->originalRequest().url.absoluteString(); }

  /// The connection is open (and secured): the idle clock starts.
  void connected() { lastActivity = Clock::now(); }
  /// Bytes moved so far each way (answer heads included); any change restarts the idle clock.
  void progressed(curl_off_t received, curl_off_t sent) {
    if (received == bytesReceived && sent == bytesSent) return;
    bytesReceived = received;
    bytesSent = sent;
    lastActivity = Clock::now();
  }
  /// When the transfer will have been idle for its whole time-out; nothing before it is connected.
  std::optional<Clock::time_point> idleDeadline() const {
    return lastActivity ? std::optional(*lastActivity + idleTimeout) : std::nullopt;
  }

  Engine* engine = nullptr;
  Engine::Kind kind = Engine::Kind::data;
  std::uint64_t taskIdentifier = 0;
  std::shared_ptr<CurlTask> task;  // set when the task is resumed
  URLSession::DataCompletion dataCompletion;
  URLSession::DownloadCompletion downloadCompletion;
  CurlEasy easy;
  CurlSlist headerList;
  // The headers without "Content-Type", for a body request that a redirect turns into a bodiless GET.
  CurlSlist bodilessHeaderList;
  // Authorities (a PEM file) trusted besides the system's; empty: none.
  std::string authorityFile;
  std::optional<std::string> uploadPath;
  FileDescriptor uploadFile;
  FileDescriptor downloadFile;
  std::string downloadPath;
  Data received;
  // Answer bytes kept (buffered or handed to the delegate), and whether the answer went past its bound.
  std::size_t keptLength = 0;
  bool cutShort = false;
  HTTPHeaderFields responseHeaders;
  // A failure found outside curl (a missing upload file, a cancel, a full disk); it wins over curl's result.
  std::optional<Error> failure;
  std::string journalPath;
  bool replayed = false;
  // Reports to the task's progress handler, read once when the transfer begins; empty when it has none.
  URLSessionTask::ProgressHandler progress;
  Clock::time_point lastProgress;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  Clock::duration idleTimeout{};
  std::optional<Clock::time_point> lastActivity;
  curl_off_t bytesReceived = 0;
  curl_off_t bytesSent = 0;
};

namespace {

void setOption(CURL* easy, CURLoption option, auto value) {
  // Options here are all supported by the minimum libcurl we build against; a failure is a build mistake.
  if (curl_easy_setopt(easy, option, value) != CURLE_OK) fatalError("libcurl rejected an option");
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() &&
         (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

std::size_t onHeader(char* buffer, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  const std::string_view line = trimmed(std::string_view(buffer, size * count));
  if (line.starts_with("HTTP/")) {
    transfer.responseHeaders = {};  // a new answer (after a redirect or an interim 1xx)
    // After 301, 302 or 303 curl repeats a body request as a GET without the body; its Content-Type must
    // not travel with it.
    const std::string_view status = line.substr(std::min(line.find(' '), line.size())).substr(0, 4);
    if (transfer.bodilessHeaderList && (status == " 301" || status == " 302" || status == " 303")) {
      setOption(transfer.easy.get(), CURLOPT_HTTPHEADER, transfer.bodilessHeaderList.get());
    }
  } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
    transfer.responseHeaders.addValue(trimmed(line.substr(colon + 1)), line.substr(0, colon));
  }
  return size * count;
}

// How much of `length` more answer bytes to keep: all of them within the request's bound, else up to one byte
// past it, which marks the answer as cut short.
std::size_t lengthToKeep(Transfer& transfer, std::size_t length) {
  const auto& bound = transfer.task->originalRequest().maximumResponseLength;
  if (!bound || transfer.keptLength + length <= *bound) return length;
  transfer.cutShort = true;
  return *bound + 1 - transfer.keptLength;
}

// A download's bytes go to a file of its own in the system's temporary folder ($TMPDIR, else /tmp).
void openDownloadFile(Transfer& transfer, const std::string& url) {
  std::error_code noFolder;
  const auto folder = std::filesystem::temp_directory_path(noFolder);
  if (noFolder) {
    transfer.failure = urlError(URLError::cannotWriteToFile, url, noFolder.message());
    return;
  }
  std::string pattern = (folder / "ZuDownload-XXXXXX").string();
  // mkstemp makes the file readable and writable by the owner only.
  transfer.downloadFile = FileDescriptor(::mkostemp(pattern.data(), O_CLOEXEC));
  if (!transfer.downloadFile) {
    transfer.failure = urlError(URLError::cannotWriteToFile, url, systemErrorText(errno));
    return;
  }
  transfer.downloadPath = pattern;
}

std::size_t onBody(char* buffer, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  const std::size_t length = size * count;
  if (transfer.kind == Engine::Kind::download) {
    if (const auto error = writeAll(transfer.downloadFile.get(), buffer, length)) {
      const auto reason = systemErrorText(static_cast<int>(error->code()));
      transfer.failure = urlError(URLError::cannotWriteToFile, transfer.url(), reason);
      return 0;
    }
    return length;
  }
  const std::size_t kept = lengthToKeep(transfer, length);
  transfer.keptLength += kept;
  if (transfer.delegated()) {
    transfer.engine->deliverData(transfer, buffer, kept);
  } else {
    transfer.received.insert(transfer.received.end(), buffer, buffer + kept);
  }
  return transfer.cutShort ? 0 : length;  // a short count stops the transfer
}

std::size_t onUploadRead(char* buffer, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  const ssize_t n = readSome(transfer.uploadFile.get(), buffer, size * count);
  if (n < 0) {
    transfer.failure = urlError(URLError::fileDoesNotExist, transfer.url(), systemErrorText(errno));
    return CURL_READFUNC_ABORT;
  }
  return static_cast<std::size_t>(n);
}

// Redirects and retried connections send the body again from the start.
int onUploadSeek(void* context, curl_off_t offset, int origin) {
  auto& transfer = *static_cast<Transfer*>(context);
  return ::lseek(transfer.uploadFile.get(), offset, origin) < 0 ? CURL_SEEKFUNC_FAIL : CURL_SEEKFUNC_OK;
}

int onConnected(void* context, char*, char*, int, int) {
  static_cast<Transfer*>(context)->connected();
  return CURL_PREREQFUNC_OK;
}

// The body's bytes moved so far and expected, in the transfer's direction, to a task that asked for them;
// curl says 0 for an unknown total.
void reportProgress(Transfer& transfer, curl_off_t done, curl_off_t expected) {
  constexpr auto kInterval = std::chrono::milliseconds(250);
  if (!transfer.progress || done == 0) return;
  const auto now = Transfer::Clock::now();
  if (now - transfer.lastProgress < kInterval) return;
  transfer.lastProgress = now;
  transfer.progress(done, expected > 0 ? expected : URLSessionTask::transferSizeUnknown);
}

// The transfer's progress function: curl calls it after every pass over the connection, and about once a
// second while nothing moves.
int onProgress(void* context, curl_off_t downloadTotal, curl_off_t downloaded, curl_off_t uploadTotal,
               curl_off_t uploaded) {
  auto& transfer = *static_cast<Transfer*>(context);
  long headerBytes = 0;
  curl_easy_getinfo(transfer.easy.get(), CURLINFO_HEADER_SIZE, &headerBytes);
  transfer.progressed(downloaded + headerBytes, uploaded);
  if (transfer.kind == Engine::Kind::upload) {
    reportProgress(transfer, uploaded, uploadTotal);
  } else {
    reportProgress(transfer, downloaded, downloadTotal);
  }
  return 0;
}

// The last report, with the final count, just before the task completes.
void reportFinalProgress(Transfer& transfer) {
  CURL* easy = transfer.easy.get();
  curl_off_t done = 0;
  curl_off_t expected = -1;
  if (transfer.kind == Engine::Kind::upload) {
    curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &done);
    expected = done;
  } else {
    curl_easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD_T, &done);
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
  }
  transfer.progress(done, expected >= 0 ? expected : URLSessionTask::transferSizeUnknown);
}

// A request's time-out as a clock duration, bounded so that the sums made with it cannot overflow: a zero or
// negative time-out gives up at once, an infinite one never does in practice.
Transfer::Clock::duration idleTimeoutOf(const URLRequest& request) {
  constexpr double kLongest = 1e9;  // about 30 years
  const double seconds = std::isnan(request.timeoutInterval) ? 0 : request.timeoutInterval;
  return std::chrono::duration_cast<Transfer::Clock::duration>(
      std::chrono::duration<double>(std::clamp(seconds, 0.0, kLongest)));
}

CURLcode addAuthorities(CURL*, void* sslContext, void* context) {
  X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
  const auto& transfer = *static_cast<const Transfer*>(context);
  return addTrustedAuthorities(store, transfer.authorityFile) ? CURLE_OK : CURLE_SSL_CACERT_BADFILE;
}

void setMethodAndBody(Transfer& transfer, const URLRequest& request) {
  CURL* easy = transfer.easy.get();
  const std::string& method = request.httpMethod;
  if (transfer.kind == Engine::Kind::upload) {
    struct stat info {};
    if (transfer.uploadFile && ::fstat(transfer.uploadFile.get(), &info) == 0) {
      setOption(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(info.st_size));
    }
    setOption(easy, CURLOPT_UPLOAD, 1L);
    // libcurl's default 64 KiB reads are kept: a block that large is still in the core's cache when it is
    // encrypted, where 256 KiB blocks made uploads a third slower.
    setOption(easy, CURLOPT_READFUNCTION, &onUploadRead);
    setOption(easy, CURLOPT_READDATA, &transfer);
    setOption(easy, CURLOPT_SEEKFUNCTION, &onUploadSeek);
    setOption(easy, CURLOPT_SEEKDATA, &transfer);
    if (method != "PUT") setOption(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  } else if (request.httpBody || method == "POST") {
    // The body lives in the task's original request, which outlives the transfer.
    static const Data kNoBody;
    const Data& body = request.httpBody ? *request.httpBody : kNoBody;
    setOption(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    setOption(easy, CURLOPT_POSTFIELDS, reinterpret_cast<const char*>(body.data()));
    if (method != "POST") setOption(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  } else if (method == "HEAD") {
    setOption(easy, CURLOPT_NOBODY, 1L);
  } else if (method != "GET") {
    setOption(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
}

// curl leaves out a header written "Name:" with nothing after it (that form removes a header of its own), so
// an empty value is written "Name;", which curl sends as the header with the empty value.
std::string headerLine(const std::string& name, const std::string& value) {
  return value.empty() ? name + ";" : name + ": " + value;
}

CurlSlist headerList(const URLRequest& request, bool withContentType) {
  curl_slist* list = nullptr;
  auto append = [&](const std::string& line) {
    curl_slist* longer = curl_slist_append(list, line.c_str());
    if (!longer) fatalError("Out of memory building request headers");
    list = longer;
  };
  for (const auto& [name, value] : request.allHTTPHeaderFields.fields()) {
    if (withContentType || ::strcasecmp(name.c_str(), "Content-Type") != 0) append(headerLine(name, value));
  }
  // No "Expect: 100-continue" round trip before a body: it only delays uploads.
  append("Expect:");
  return CurlSlist(list);
}

void setHeaders(Transfer& transfer, const URLRequest& request) {
  transfer.headerList = headerList(request, true);
  setOption(transfer.easy.get(), CURLOPT_HTTPHEADER, transfer.headerList.get());
  if (transfer.kind != Engine::Kind::upload && (request.httpBody || request.httpMethod == "POST")) {
    transfer.bodilessHeaderList = headerList(request, false);
  }
}

void configure(Transfer& transfer, const URLRequest& request, const URLSessionConfiguration& configuration) {
  CURL* easy = transfer.easy.get();
  setOption(easy, CURLOPT_URL, request.url.absoluteString().c_str());
  setOption(easy, CURLOPT_PRIVATE, &transfer);
  setOption(easy, CURLOPT_NOSIGNAL, 1L);
  setOption(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  setOption(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  // Redirects are followed; curl drops "Authorization" and cookies when the host changes.
  setOption(easy, CURLOPT_FOLLOWLOCATION, 1L);
  setOption(easy, CURLOPT_MAXREDIRS, 16L);
  setOption(easy, CURLOPT_UNRESTRICTED_AUTH, 0L);
  setOption(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  setOption(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  setOption(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  // Every connection trusts the authorities parsed once for the process (TrustedAuthorities.hpp): libcurl
  // reads no file of its own and keeps no store of its own between connections.
  const auto authorities = configuration.additionalCertificateAuthorityFile
                               ? configuration.additionalCertificateAuthorityFile
                               : URLSession::additionalCertificateAuthorityFile();
  transfer.authorityFile = authorities.value_or("");
  setOption(easy, CURLOPT_CAINFO, static_cast<const char*>(nullptr));
  setOption(easy, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  setOption(easy, CURLOPT_CA_CACHE_TIMEOUT, 0L);
  setOption(easy, CURLOPT_SSL_CTX_FUNCTION, &addAuthorities);
  setOption(easy, CURLOPT_SSL_CTX_DATA, &transfer);
  // The time-out is an idle time-out, kept by the engine from the progress reports once the connection is
  // open; opening it has a time-out of its own, the same but never more than a minute.
  transfer.idleTimeout = idleTimeoutOf(request);
  const auto connectLimit =
      std::min<Transfer::Clock::duration>(transfer.idleTimeout, std::chrono::minutes(1));
  setOption(
      easy, CURLOPT_CONNECTTIMEOUT_MS,
      std::max(1L, static_cast<long>(std::chrono::ceil<std::chrono::milliseconds>(connectLimit).count())));
  setOption(easy, CURLOPT_PREREQFUNCTION, &onConnected);
  setOption(easy, CURLOPT_PREREQDATA, &transfer);
  setOption(easy, CURLOPT_NOPROGRESS, 0L);
  setOption(easy, CURLOPT_XFERINFOFUNCTION, &onProgress);
  setOption(easy, CURLOPT_XFERINFODATA, &transfer);
  setOption(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  // Servers drop idle keep-alive connections after a few seconds (5 s is common), and a TLS connection that
  // the server has closed can still look alive to curl, which then fails the request with a broken pipe. Idle
  // connections are reused within 4 seconds only.
  setOption(easy, CURLOPT_MAXAGE_CONN, 4L);
  setOption(easy, CURLOPT_ACCEPT_ENCODING, "");
  setOption(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  setOption(easy, CURLOPT_HEADERFUNCTION, &onHeader);
  setOption(easy, CURLOPT_HEADERDATA, &transfer);
  setOption(easy, CURLOPT_WRITEFUNCTION, &onBody);
  setOption(easy, CURLOPT_WRITEDATA, &transfer);
  setHeaders(transfer, request);
  setMethodAndBody(transfer, request);
}

std::optional<HTTPURLResponse> responseOf(Transfer& transfer) {
  long status = 0;
  curl_easy_getinfo(transfer.easy.get(), CURLINFO_RESPONSE_CODE, &status);
  if (status <= 0) return std::nullopt;
  const char* effective = nullptr;
  curl_easy_getinfo(transfer.easy.get(), CURLINFO_EFFECTIVE_URL, &effective);
  auto url = effective ? URL::fromString(effective) : std::nullopt;
  return HTTPURLResponse{url.value_or(transfer.task->originalRequest().url), static_cast<int>(status),
                         std::move(transfer.responseHeaders)};
}

}  // namespace

// ---- CurlTask ----

CurlTask::CurlTask(std::uint64_t identifier, URLRequest request, std::weak_ptr<Engine> engine)
    : URLSessionTask(identifier, std::move(request)), engine_(std::move(engine)) {}

CurlTask::~CurlTask() = default;

namespace {

// The session is gone: a transfer with a completion is told it was cancelled; delegate events have no
// session.
void completeWithoutSession(Transfer& transfer, const std::string& url) {
  if (transfer.dataCompletion) {
    transfer.dataCompletion(std::nullopt, std::nullopt, urlError(URLError::cancelled, url));
  } else if (transfer.downloadCompletion) {
    transfer.downloadCompletion(std::nullopt, std::nullopt, urlError(URLError::cancelled, url));
  }
}

}  // namespace

std::unique_ptr<Transfer> CurlTask::takePrepared() {
  std::lock_guard lock(mutex_);
  return std::move(prepared_);
}

void CurlTask::resume() {
  auto transfer = takePrepared();
  if (!transfer) return;
  transfer->task = shared_from_this();
  if (auto engine = engine_.lock()) return engine->submit(std::move(transfer));
  completeWithoutSession(*transfer, originalRequest().url.absoluteString());
}

void CurlTask::cancel() {
  auto transfer = takePrepared();
  auto engine = engine_.lock();
  if (!transfer) {
    if (engine) engine->cancel(taskIdentifier());
    return;
  }
  if (!engine) return completeWithoutSession(*transfer, originalRequest().url.absoluteString());
  // Never started: it completes as cancelled without touching the network.
  transfer->failure = urlError(URLError::cancelled, originalRequest().url.absoluteString());
  transfer->task = shared_from_this();
  engine->submit(std::move(transfer));
}

// ---- Engine ----

Engine::Engine(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate)
    : configuration_(std::move(configuration)),
      delegate_(std::move(delegate)),
      journal_(configuration_.identifier ? std::optional<Journal>(Journal(*configuration_.identifier))
                                         : std::nullopt) {
  ensureCurlGlobalInit();
  multi_.reset(curl_multi_init());
  if (!multi_) fatalError("curl_multi_init failed");
  curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS,
                    configuration_.httpMaximumConnectionsPerHost);
  curl_multi_setopt(multi_.get(), CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
}

Engine::~Engine() {
  // Handles must leave the multi handle before either is cleaned up.
  for (auto& [easy, transfer] : active_) curl_multi_remove_handle(multi_.get(), easy);
}

void Engine::start(URLSession* owner) {
  owner_ = owner;
  std::vector<std::unique_ptr<Transfer>> replays;
  if (journal_ && !delegate_.expired()) {
    for (auto& entry : journal_->entries()) {
      auto kind = entry.uploadFile ? Kind::upload : Kind::download;
      auto upload = entry.uploadFile ? std::optional(URL::fileURLWithPath(*entry.uploadFile)) : std::nullopt;
      auto task = std::make_shared<CurlTask>(nextIdentifier_++, std::move(entry.request), weak_from_this());
      auto transfer = prepare(task, kind, upload);
      transfer->task = task;
      transfer->journalPath = entry.path;
      transfer->replayed = true;
      replays.push_back(std::move(transfer));
    }
  }
  replaysRemaining_ = replays.size();
  // The worker keeps the engine alive, so a stop() from the worker itself can let it run out on its own.
  thread_ = std::thread([self = shared_from_this()] { self->run(); });
  stopAtExit(weak_from_this(), [this] { stop(); });
  for (auto& transfer : replays) submit(std::move(transfer));
}

void Engine::stop() {
  std::thread worker;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    worker = std::move(thread_);
  }
  curl_multi_wakeup(multi_.get());
  // A later stop, from the worker's own wind-down for one, finds no worker and does not wait for it.
  if (worker.get_id() == std::this_thread::get_id()) {
    retireWorker(std::move(worker));
  } else if (worker.joinable()) {
    worker.join();
  }
}

bool Engine::stopping() {
  std::lock_guard lock(mutex_);
  return stopping_;
}

std::shared_ptr<URLSessionTask> Engine::makeTask(Kind kind, URLRequest request,
                                                 const std::optional<URL>& uploadFile,
                                                 URLSession::DataCompletion dataCompletion,
                                                 URLSession::DownloadCompletion downloadCompletion) {
  auto task = std::make_shared<CurlTask>(nextIdentifier_++, std::move(request), weak_from_this());
  auto transfer = prepare(task, kind, uploadFile);
  transfer->dataCompletion = std::move(dataCompletion);
  transfer->downloadCompletion = std::move(downloadCompletion);
  std::lock_guard lock(task->mutex_);
  task->prepared_ = std::move(transfer);
  return task;
}

std::unique_ptr<Transfer> Engine::prepare(const std::shared_ptr<CurlTask>& task, Kind kind,
                                          const std::optional<URL>& uploadFile) {
  auto transfer = std::make_unique<Transfer>();
  transfer->engine = this;
  transfer->kind = kind;
  transfer->taskIdentifier = task->taskIdentifier();
  const std::string& url = task->originalRequest().url.absoluteString();
  if (uploadFile) {
    transfer->uploadPath = uploadFile->path();
    transfer->uploadFile = FileDescriptor::open(*transfer->uploadPath, O_RDONLY);
    if (!transfer->uploadFile)
      transfer->failure = urlError(URLError::fileDoesNotExist, url, systemErrorText(errno));
  }
  if (kind == Kind::download) openDownloadFile(*transfer, url);
  transfer->easy.reset(curl_easy_init());
  if (!transfer->easy) fatalError("curl_easy_init failed");
  configure(*transfer, task->originalRequest(), configuration_);
  return transfer;
}

void Engine::post(std::function<void()> command) {
  {
    std::lock_guard lock(mutex_);
    commands_.push_back(std::move(command));
  }
  curl_multi_wakeup(multi_.get());
}

void Engine::submit(std::unique_ptr<Transfer> transfer) {
  // Recorded when started, not when made: a task that is never resumed must not run in a later process.
  const bool journalled = journal_ && transfer->delegated() && transfer->kind != Kind::data;
  if (journalled && !transfer->failure && transfer->journalPath.empty()) {
    transfer->journalPath = journal_->record(transfer->task->originalRequest(), transfer->uploadPath);
  }
  std::unique_lock lock(mutex_);
  if (stopping_) {
    lock.unlock();
    return abandon(std::move(transfer));
  }
  // std::function needs a copyable callable, so the transfer travels as a shared pointer.
  auto shared = std::make_shared<std::unique_ptr<Transfer>>(std::move(transfer));
  commands_.push_back([this, shared] { begin(std::move(*shared)); });
  lock.unlock();
  curl_multi_wakeup(multi_.get());
}

void Engine::cancel(std::uint64_t taskIdentifier) {
  post([this, taskIdentifier] {
    auto it = std::find_if(active_.begin(), active_.end(),
                           [&](const auto& entry) { return entry.second->taskIdentifier == taskIdentifier; });
    if (it == active_.end()) return;  // already completed
    auto transfer = std::move(it->second);
    active_.erase(it);
    curl_multi_remove_handle(multi_.get(), transfer->easy.get());
    auto error = urlError(URLError::cancelled, transfer->url());
    finish(std::move(transfer), std::move(error));
  });
}

void Engine::begin(std::unique_ptr<Transfer> transfer) {
  if (transfer->failure) {
    auto error = std::move(transfer->failure);
    return finish(std::move(transfer), std::move(error));
  }
  transfer->progress = transfer->task->progressHandler();
  CURL* easy = transfer->easy.get();
  if (curl_multi_add_handle(multi_.get(), easy) != CURLM_OK) {
    auto error = urlError(URLError::unknown, transfer->url(), "curl_multi_add_handle failed");
    return finish(std::move(transfer), std::move(error));
  }
  active_.emplace(easy, std::move(transfer));
}

void Engine::run() {
  while (true) {
    std::vector<std::function<void()>> commands;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) break;
      commands.swap(commands_);
    }
    for (auto& command : commands) command();
    int running = 0;
    curl_multi_perform(multi_.get(), &running);
    collectFinished();
    const auto wait = expireIdle();
    curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(wait.count()), nullptr);
  }
  std::vector<std::function<void()>> leftover;
  {
    std::lock_guard lock(mutex_);
    leftover.swap(commands_);
  }
  // Transfers submitted before the stop still owe their completions: they are taken in, then abandoned.
  for (auto& command : leftover) command();
  for (auto& [easy, transfer] : active_) curl_multi_remove_handle(multi_.get(), easy);
  auto active = std::move(active_);
  for (auto& [easy, transfer] : active) abandon(std::move(transfer));
}

void Engine::collectFinished() {
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    auto it = active_.find(message->easy_handle);
    if (it == active_.end()) continue;
    const CURLcode result = message->data.result;
    auto transfer = std::move(it->second);
    active_.erase(it);
    curl_multi_remove_handle(multi_.get(), transfer->easy.get());
    std::optional<Error> error = std::move(transfer->failure);
    // An answer cut short at its bound completes with the bytes kept; its reader judges them.
    const bool cutShort = transfer->cutShort && result == CURLE_WRITE_ERROR;
    if (!error && result != CURLE_OK && !cutShort)
      error = urlError(result, transfer->url(), transfer->errorBuffer);
    finish(std::move(transfer), std::move(error));
  }
}

std::chrono::milliseconds Engine::expireIdle() {
  const auto now = Transfer::Clock::now();
  // Commands wake the worker at once; a second is the longest it sleeps otherwise.
  auto wait = std::chrono::milliseconds(1000);
  std::vector<CURL*> idle;
  for (const auto& [easy, transfer] : active_) {
    const auto deadline = transfer->idleDeadline();
    if (!deadline) continue;
    if (*deadline <= now) {
      idle.push_back(easy);
    } else {
      wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(*deadline - now));
    }
  }
  for (CURL* easy : idle) {
    auto it = active_.find(easy);
    auto transfer = std::move(it->second);
    active_.erase(it);
    curl_multi_remove_handle(multi_.get(), easy);
    const auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(transfer->idleTimeout);
    auto error = urlError(URLError::timedOut, transfer->url(),
                          "Nothing moved for " + std::to_string(timeout.count()) + " ms");
    finish(std::move(transfer), std::move(error));
  }
  return wait;
}

void Engine::finish(std::unique_ptr<Transfer> transfer, std::optional<Error> error) {
  if (stopping()) return abandon(std::move(transfer));
  Transfer& t = *transfer;
  auto response = responseOf(t);
  if (!error && !response) error = urlError(URLError::networkConnectionLost, t.url(), "no HTTP answer");
  if (response) t.task->setResponse(*response);
  if (!error && t.progress) reportFinalProgress(t);
  if (t.dataCompletion) {
    if (error) return t.dataCompletion(std::nullopt, std::move(response), std::move(error));
    return t.dataCompletion(std::move(t.received), std::move(response), std::nullopt);
  }
  if (t.downloadCompletion) {
    if (error) return t.downloadCompletion(std::nullopt, std::move(response), std::move(error));
    t.downloadFile = FileDescriptor();
    // The temporary file is removed with the transfer, after the completion has returned.
    return t.downloadCompletion(URL::fileURLWithPath(t.downloadPath), std::move(response), std::nullopt);
  }
  deliverToDelegate(t, error);
}

void Engine::deliverToDelegate(Transfer& transfer, const std::optional<Error>& error) {
  auto delegate = delegate_.lock();
  if (delegate && transfer.kind == Kind::download && !error) {
    transfer.downloadFile = FileDescriptor();
    delegate->didFinishDownloadingTo(*owner_, *transfer.task, URL::fileURLWithPath(transfer.downloadPath));
  }
  // A callback may have dropped the last reference to the session; then nothing more is delivered.
  if (delegate && !stopping()) delegate->didCompleteWithError(*owner_, *transfer.task, error);
  if (!transfer.journalPath.empty()) Journal::remove(transfer.journalPath);
  if (transfer.replayed && --replaysRemaining_ == 0 && delegate && !stopping()) {
    delegate->urlSessionDidFinishEvents(*owner_);
  }
}

void Engine::deliverData(Transfer& transfer, const char* bytes, std::size_t size) {
  auto delegate = delegate_.lock();
  if (!delegate || stopping()) return;
  delegate->didReceive(*owner_, *transfer.task, Data(bytes, bytes + size));
}

void Engine::abandon(std::unique_ptr<Transfer> transfer) {
  // Journalled transfers stay on disk for a later session.
  completeWithoutSession(*transfer, transfer->url());
}

}  // namespace zu::detail
