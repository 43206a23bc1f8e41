// One owning pointer for every reference-counted GLib/GStreamer object.
//
// Ownership is explicit at construction: orlo::adopt(p) takes over a
// reference the caller already owns (a `transfer full` result), orlo::ref(p)
// takes a new one (a `transfer none` result), and orlo::adopt_floating(p)
// sinks the floating reference of a new GstObject (`transfer floating`, as
// gst_parse_launch and gst_element_factory_make give) and keeps it.  A
// floating object handed to adopt() would be unreferenced while nobody owns
// it: debug builds stop there.  The per-type traits say how to add and drop
// a reference.
#pragma once

#include <gst/gst.h>

#include <utility>

namespace orlo {

template <typename T>
struct ref_traits;

// The GstObject family starts life with a floating reference, which whoever
// keeps the object must sink.
template <typename T>
struct gst_object_traits {
  static constexpr bool floats = true;
  static void ref(T *p) { gst_object_ref(p); }
  static void unref(T *p) { gst_object_unref(p); }
  static bool floating(T *p) { return g_object_is_floating(p) != FALSE; }
  static void sink(T *p) { gst_object_ref_sink(p); }
};

template <>
struct ref_traits<GstBuffer> {
  static void ref(GstBuffer *p) { gst_buffer_ref(p); }
  static void unref(GstBuffer *p) { gst_buffer_unref(p); }
};

template <>
struct ref_traits<GstCaps> {
  static void ref(GstCaps *p) { gst_caps_ref(p); }
  static void unref(GstCaps *p) { gst_caps_unref(p); }
};

template <>
struct ref_traits<GstElement> : gst_object_traits<GstElement> {};

template <>
struct ref_traits<GstPad> : gst_object_traits<GstPad> {};

template <>
struct ref_traits<GstBus> : gst_object_traits<GstBus> {};

template <>
struct ref_traits<GstMessage> {
  static void ref(GstMessage *p) { gst_message_ref(p); }
  static void unref(GstMessage *p) { gst_message_unref(p); }
};

template <>
struct ref_traits<GMainContext> {
  static void ref(GMainContext *p) { g_main_context_ref(p); }
  static void unref(GMainContext *p) { g_main_context_unref(p); }
};

template <>
struct ref_traits<GMainLoop> {
  static void ref(GMainLoop *p) { g_main_loop_ref(p); }
  static void unref(GMainLoop *p) { g_main_loop_unref(p); }
};

template <typename T>
class ref_ptr {
 public:
  ref_ptr() noexcept = default;
  ref_ptr(const ref_ptr &o) : p_(o.p_) {
    if (p_) ref_traits<T>::ref(p_);
  }
  ref_ptr(ref_ptr &&o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  ref_ptr &operator=(ref_ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }
  ~ref_ptr() { reset(); }

  static ref_ptr adopt(T *p) noexcept {
#ifndef NDEBUG
    if constexpr (floats()) g_assert(p == nullptr || !ref_traits<T>::floating(p));
#endif
    ref_ptr r;
    r.p_ = p;
    return r;
  }
  static ref_ptr adopt_floating(T *p) {
    static_assert(floats(), "only a GstObject has a floating reference");
    if (p != nullptr && ref_traits<T>::floating(p)) ref_traits<T>::sink(p);
    return adopt(p);
  }
  static ref_ptr ref(T *p) {
    if (p) ref_traits<T>::ref(p);
    return adopt(p);
  }

  T *get() const noexcept { return p_; }
  T *operator->() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  // Hands the reference back to C code that takes it over.
  [[nodiscard]] T *release() noexcept { return std::exchange(p_, nullptr); }
  void reset() noexcept {
    if (T *p = std::exchange(p_, nullptr)) ref_traits<T>::unref(p);
  }

 private:
  static constexpr bool floats() {
    if constexpr (requires { ref_traits<T>::floats; }) return ref_traits<T>::floats;
    return false;
  }

  T *p_ = nullptr;
};

template <typename T>
ref_ptr<T> adopt(T *p) noexcept {
  return ref_ptr<T>::adopt(p);
}

template <typename T>
ref_ptr<T> adopt_floating(T *p) {
  return ref_ptr<T>::adopt_floating(p);
}

template <typename T>
ref_ptr<T> ref(T *p) {
  return ref_ptr<T>::ref(p);
}

}  // namespace orlo
