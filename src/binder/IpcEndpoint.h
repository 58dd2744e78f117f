// Objects of this process that services can call.
#pragma once

#include <cstdint>
#include <utility>

#include "binder/RefCount.h"
#include "vesk/vesk.h"

namespace vesk {

// Answers each call with 1, "not handled". An endpoint class derives from this and hides the member for the calls that
// it serves; the container knows the class, so nothing is virtual.
class IpcEndpoint {
 public:
  int call(void*, unsigned int, vesk_identity*, vesk_buffer*, vesk_payload*) { return 1; }
  int call_oneway(void*, unsigned int, vesk_identity*, vesk_buffer*) { return 1; }
};

// An endpoint object with the record that libvesk knows it by. On the heap, shared with libvesk: the count starts at 0
// and the release that brings it back to 0 destroys the container. Hold it through EndpointPtr. References change on
// any thread; T is called on the run-loop thread.
template <typename T>
class IpcEndpointContainer {
 public:
  template <typename... Args>
  explicit IpcEndpointContainer(Args&&... args)
      : m_endpoint{&s_endpoint_fn, this}, m_impl(std::forward<Args>(args)...) {}

  IpcEndpointContainer(const IpcEndpointContainer&) = delete;
  IpcEndpointContainer& operator=(const IpcEndpointContainer&) = delete;

  void acquire() { m_ref_count.acquire(); }
  void release() {
    if (m_ref_count.release()) delete this;
  }
  std::int32_t get_refcount() const { return m_ref_count.get(); }

  T& get_impl() { return m_impl; }

  // The record that vesk_write_endpoint and vesk_service_register take, at the container's address.
  vesk_endpoint* get_endpoint() { return &m_endpoint; }

  static IpcEndpointContainer* offset_to_self(vesk_endpoint* endpoint) {
    return static_cast<IpcEndpointContainer*>(endpoint->context);
  }

  static int endpoint_call(void* runtime, vesk_endpoint* endpoint, unsigned int code, vesk_identity* caller,
                           vesk_buffer* request, vesk_payload* reply) {
    return offset_to_self(endpoint)->m_impl.call(runtime, code, caller, request, reply);
  }
  static int endpoint_call_oneway(void* runtime, vesk_endpoint* endpoint, unsigned int code, vesk_identity* caller,
                                  vesk_buffer* request) {
    return offset_to_self(endpoint)->m_impl.call_oneway(runtime, code, caller, request);
  }
  static int endpoint_acquire(void*, vesk_endpoint* endpoint) {
    offset_to_self(endpoint)->acquire();
    return 0;
  }
  static int endpoint_release(void*, vesk_endpoint* endpoint) {
    offset_to_self(endpoint)->release();
    return 0;
  }

 private:
  ~IpcEndpointContainer() = default;

  static constexpr vesk_endpoint_fn s_endpoint_fn{&endpoint_call, &endpoint_call_oneway, &endpoint_acquire,
                                                  &endpoint_release};

  vesk_endpoint m_endpoint;  // First: its address is the container's.
  RefCount m_ref_count;
  T m_impl;
};

// Owns one reference to a container.
template <typename T>
class EndpointPtr {
 public:
  EndpointPtr() = default;
  explicit EndpointPtr(IpcEndpointContainer<T>* container) : m_container(container) {
    if (m_container) m_container->acquire();
  }
  EndpointPtr(const EndpointPtr& other) : EndpointPtr(other.m_container) {}
  EndpointPtr(EndpointPtr&& other) noexcept : m_container(std::exchange(other.m_container, nullptr)) {}
  EndpointPtr& operator=(EndpointPtr other) noexcept {
    std::swap(m_container, other.m_container);
    return *this;
  }
  ~EndpointPtr() {
    if (m_container) m_container->release();
  }

  IpcEndpointContainer<T>* get() const { return m_container; }
  IpcEndpointContainer<T>* operator->() const { return m_container; }
  explicit operator bool() const { return m_container != nullptr; }

 private:
  IpcEndpointContainer<T>* m_container = nullptr;
};

// Returns the one reference to a new container.
template <typename T, typename... Args>
EndpointPtr<T> make_endpoint(Args&&... args) {
  return EndpointPtr<T>(new IpcEndpointContainer<T>(std::forward<Args>(args)...));
}

}  // namespace vesk
