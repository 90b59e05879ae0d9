// Reference-counted host objects, and the lockable base of operators and shared tool data.
#pragma once

#include <atomic>
#include <cstdint>
#include <shared_mutex>

#include "host/base/tags.h"

namespace kestrion {

// An object starts with one reference, held by whoever made it. Use() takes another,
// Recycle() releases one and deletes the object when none is left.
class Object {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  virtual void Use() { refs_.fetch_add(1, std::memory_order_relaxed); }
  virtual void Recycle() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  int References() const { return refs_.load(std::memory_order_relaxed); }

  // Attributes: a tag list that later tags with the same id replace.
  virtual void SetAttrsTagList(const TagList& tags);
  void SetAttrs(std::initializer_list<Tag> tags) { SetAttrsTagList(TagList(tags)); }
  double GetAttrD(uint32_t tag, double fallback = 0.0) const;
  uint32_t GetAttrI(uint32_t tag, uint32_t fallback = 0) const;
  const TagList& Attrs() const { return attrs_; }

 protected:
  TagList attrs_;

 private:
  std::atomic<int> refs_{1};
};

// An object whose data one thread may change while others read it: a writer lock and
// shared reader locks.
class LockableObject : public Object {
 public:
  void ObtainLock() { lock_.lock(); }
  void ReleaseLock() { lock_.unlock(); }
  // Reading is allowed on a const object.
  void ObtainReadLock() const { lock_.lock_shared(); }
  void ReleaseReadLock() const { lock_.unlock_shared(); }

 private:
  mutable std::shared_mutex lock_;
};

// Holds one reference to an object and releases it when it goes.
template <class T>
class Ref {
 public:
  Ref() = default;
  // Takes over a reference the caller already holds.
  static Ref Adopt(T* p) {
    Ref r;
    r.p_ = p;
    return r;
  }
  // Takes a new reference.
  static Ref Share(T* p) {
    if (p) p->Use();
    return Adopt(p);
  }
  Ref(const Ref& o) : p_(o.p_) {
    if (p_) p_->Use();
  }
  Ref(Ref&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U>
  Ref(Ref<U>&& o) noexcept : p_(o.Release()) {}
  Ref& operator=(Ref o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }
  ~Ref() {
    if (p_) p_->Recycle();
  }
  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  // Gives the reference up to the caller.
  T* Release() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }

 private:
  T* p_ = nullptr;
};

}  // namespace kestrion
