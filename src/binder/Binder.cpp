#include "binder/Binder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <utility>

#include "binder/CallRecord.h"
#include "binder/OrvelLogger.h"
#include "binder/ServiceBinding.h"
#include "binder/Waiting.h"
#include "parcel/Int32.h"
#include "parcel/String.h"

namespace orvel::service_apis {

const OrvelLogger& s_binder_logger = *new OrvelLogger("IDelegateService");

namespace {

constexpr std::chrono::seconds kBindTimeout{300};
constexpr std::chrono::seconds kFirstRetryDelay{2};
constexpr std::chrono::seconds kMaxRetryDelay{60};
constexpr std::chrono::seconds kPauseAfterDeath{6};

// The three words in front of every request, which have a meaning to the services only.
constexpr std::int32_t kRequestHeader[] = {0, -1, 0x53595354 /* "SYST" */};

// What the log lines of a transaction and of a bind begin with.
constexpr char kCall[] = "call";
constexpr char kBind[] = "bind_to_service";

long long seconds(std::chrono::nanoseconds duration) {
  return std::chrono::duration_cast<std::chrono::seconds>(duration).count();
}

}  // namespace

Binder::Binder(void* runtime, const char* service_name, bool is_android_service,
               std::function<void()> reconnect_callback, LinkRecord& link, Bind bind)
    : m_runtime(runtime),
      m_service_name(service_name),
      m_is_android_service(is_android_service),
      m_reconnect_callback(std::move(reconnect_callback)),
      m_link(link),
      m_epochs_before(link.epoch()) {
  m_link.look_for();
  if (bind == Bind::kNow && bind_to_service()) m_link.up(m_link.epoch());
}

Binder::~Binder() {
  m_link.stopped();
  free_messages();
  if (m_handle) vesk_service_unbind(m_runtime, m_handle->get());
  m_handle.reset();  // Here and not by its own destructor: the death listener that it unlinks uses the other members.
}

std::unique_ptr<vesk::IpcHandle> Binder::look_up() const {
  return m_is_android_service ? bind_to_android_service(m_runtime, m_service_name.c_str())
                              : bind_to_orvel_service(m_runtime, m_service_name.c_str());
}

bool Binder::bind_to_service() {
  std::unique_ptr<vesk::IpcHandle> handle = find();
  return handle && install(std::move(handle));
}

std::unique_ptr<vesk::IpcHandle> Binder::find() {
  const char* const name = m_service_name.c_str();
  s_binder_logger.i("%s:Binding to service: %s", kBind, name);

  std::unique_ptr<vesk::IpcHandle> handle;
  const waiting::TimePoint deadline = waiting::now() + kBindTimeout;
  std::chrono::seconds delay = kFirstRetryDelay;
  while (waiting::now() < deadline) {
    handle = look_up();
    if (handle) break;
    if (waiting::interrupted()) return nullptr;
    s_binder_logger.e("%s:Failed to connect to service (%s), retrying in %llds (%llds remaining)", kBind, name,
                      seconds(delay), seconds(deadline - waiting::now()));
    if (!waiting::sleep_for(delay)) return nullptr;
    delay = std::min(2 * delay, kMaxRetryDelay);
  }
  if (!handle) {
    s_binder_logger.e("%s:Giving up connecting to service (%s) after %llds timeout", kBind, name,
                      seconds(kBindTimeout));
    m_link.given_up("the service was not found within 300 s");
  }
  return handle;
}

bool Binder::install(std::unique_ptr<vesk::IpcHandle> handle) {
  const char* const name = m_service_name.c_str();
  std::unique_ptr<vesk::IpcHandle> unwatched;  // Outlives the lock: its destructor calls libvesk.
  const std::lock_guard<waiting::Mutex> lock(m_mutex);
  // Under the lock, for which on_binder_died() waits: a notice may come while this is a thread beside the run loop.
  if (!handle->set_death_listener([this] { on_binder_died(); })) {
    s_binder_logger.e("%s:Failed to register death callback, service (%s) has likely died", kBind, name);
    unwatched = std::move(handle);
    m_link.given_up("the death of the service cannot be watched");
    return false;
  }
  m_handle = std::move(handle);
  ++m_connection;
  m_link.bound();
  s_binder_logger.i("%s:Bound to service: %s", kBind, name);
  return true;
}

void Binder::restore() {
  const std::uint64_t epoch = m_link.epoch();
  m_reconnect_callback();
  m_link.up(epoch);
}

void Binder::bind_beside() {
  LinkBoard::instance().tell();
  if (std::unique_ptr<vesk::IpcHandle> handle = find()) {
    const LinkBoard::Restoring restoring;
    if (install(std::move(handle))) restore();
    LinkBoard::instance().tell();
  } else {
    LinkBoard::instance().tell();
  }
}

void Binder::on_binder_died() {
  const char* const name = m_service_name.c_str();
  {
    std::unique_ptr<vesk::IpcHandle> dead;  // Outlives the lock: its destructor calls libvesk.
    const std::lock_guard<waiting::Mutex> lock(m_mutex);
    dead = std::move(m_handle);
    m_link.died();
    s_binder_logger.e("%s:Service (%s) has died, re-establishing binder connection", __func__, name);
  }
  m_link.after_death();
  LinkBoard& links = LinkBoard::instance();
  links.tell();
  if (waiting::sleep_for(kPauseAfterDeath) && bind_to_service()) {
    restore();
    s_binder_logger.i("%s:Death callback completed", __func__);
  } else {
    s_binder_logger.e("%s:Failed to reconnect to service (%s), death callback completed", __func__, name);
  }
  links.tell();
}

Binder::Reply Binder::call(const char* descriptor, unsigned int code, const RequestWriter& writer) {
  if (std::optional<Reply> reply = call_if_bound(descriptor, code, writer)) return *std::move(reply);
  s_binder_logger.e("%s:Binder is not initialized", __func__);
  return {};
}

std::optional<Binder::Reply> Binder::call_if_bound(const char* descriptor, unsigned int code,
                                                   const RequestWriter& writer, Connection required_connection) {
  Reply reply(m_transaction);
  const std::lock_guard<waiting::Mutex> lock(m_mutex);
  if (!m_handle) {
    CallRecord::fail_unbound(m_link);
    return std::nullopt;
  }
  if (required_connection != kNoConnection && required_connection != m_connection) return std::nullopt;
  reply.m_binder = this;  // Before the call: what a writer throws leaves a request behind.
  reply.m_buffer = send(descriptor, code, writer);
  if (reply.m_buffer) reply.m_connection = m_connection;
  return reply;
}

vesk_buffer* Binder::send(const char* descriptor, unsigned int code, const RequestWriter& writer) {
  m_payload = vesk_payload_alloc();
  if (!m_payload) {
    s_binder_logger.e("%s:Failed to alloc payload", kCall);
    CallRecord::fail_with(-ENOMEM);
    return nullptr;
  }
  m_buffer = vesk_buffer_alloc();
  if (!m_buffer) {
    s_binder_logger.e("%s:Failed to alloc buffer", kCall);
    CallRecord::fail_with(-ENOMEM);
    return nullptr;
  }
  if (!writeHeaders(m_payload)) {
    s_binder_logger.e("%s:Failed to write headers", kCall);
    CallRecord::fail_with(-ENOMEM);
    return nullptr;
  }
  String::write(m_payload, descriptor);
  const bool complete = writer(m_payload);
  const int write_error = vesk_payload_last_error(m_payload);
  if (!complete || write_error != 0) {
    s_binder_logger.e("%s:Serialize payload failed with error %d", kCall, write_error != 0 ? write_error : -EINVAL);
    if (write_error != 0) CallRecord::fail_with(write_error);
    CallRecord::fail(CallStatus::Code::kInvalidArgument, "an argument cannot be sent", -EINVAL);
    return nullptr;
  }
  if (const int error = vesk_call(m_handle->runtime(), m_handle->get(), code, m_payload, m_buffer); error != 0) {
    s_binder_logger.e("%s:VESK call failed with error %d", kCall, error);
    CallRecord::fail_with(error);
    return nullptr;
  }
  if (exceptionOccurred(m_buffer)) {
    s_binder_logger.e("%s:Exception occurred in VESK call", kCall);
    return nullptr;
  }
  return m_buffer;
}

Binder::Reply::~Reply() {
  note_whether_cut();
  if (m_binder) m_binder->done();
}

void Binder::Reply::keep() {
  note_whether_cut();
  m_binder = nullptr;
}

void Binder::Reply::note_whether_cut() const {
  if (m_buffer && m_binder && vesk_buffer_last_error(m_buffer) != 0) {
    CallRecord::fail(CallStatus::Code::kCutReply, "the reply of the service ended too early");
  }
}

void Binder::done() {
  const std::lock_guard<waiting::Mutex> lock(m_mutex);
  vesk_reply_done(m_runtime, m_buffer);
  free_messages();
}

void Binder::free_messages() {
  if (m_payload) vesk_payload_free(std::exchange(m_payload, nullptr));
  if (m_buffer) vesk_buffer_free(std::exchange(m_buffer, nullptr));
}

bool Binder::good() {
  const std::lock_guard<waiting::Mutex> lock(m_mutex);
  if (!m_handle) CallRecord::fail_unbound(m_link);
  return m_handle != nullptr;
}

bool Binder::writeHeaders(vesk_payload* payload) {
  if (!payload) {
    s_binder_logger.e("%s:payload is null", __func__);
    return false;
  }
  for (const std::int32_t word : kRequestHeader) Int32::write(payload, word);
  return true;
}

bool Binder::exceptionOccurred(vesk_buffer* buffer) {
  if (!buffer) {
    s_binder_logger.e("%s:buffer is null", __func__);
    return false;
  }
  const int code = Int32::read(buffer);
  if (code == 0) return false;
  const std::string message = String::read(buffer);
  s_binder_logger.e("%s:Received error: %d [%s]", __func__, code, message.c_str());
  CallRecord::fail(CallStatus::Code::kException, message.empty() ? "the service answered with an exception" : message,
                   code);
  if (Int32::read(buffer) >= 1) {
    const std::string trace = String::read(buffer);
    s_binder_logger.e("%s:Stack Trace: %s", __func__, trace.c_str());
  }
  return true;
}

}  // namespace orvel::service_apis
