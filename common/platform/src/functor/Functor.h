#pragma once
// CFunctor: the one callable holder used for every callback of the service.
// It holds a member function bound to an object (kind 0), a free function
// (kind 1) or nothing (kind 2).  It is a small value: copying it never
// allocates, and calling an empty one does nothing.

#include <cstring>
#include <type_traits>

namespace Zentrova {
namespace Iot {
namespace Platform {

template <typename... Args>
class CFunctor {
 public:
  enum Kind { KIND_MEMBER = 0, KIND_FUNCTION = 1, KIND_EMPTY = 2 };
  using Function = void (*)(Args...);

  CFunctor() = default;

  // A null function pointer yields an empty functor.
  CFunctor(Function fn) {  // NOLINT(google-explicit-constructor): plain functions convert
    if (fn) {
      m_kind = KIND_FUNCTION;
      m_function = fn;
    }
  }

  template <typename T>
  CFunctor(T* object, void (T::*method)(Args...)) {
    bind_member<T, void (T::*)(Args...)>(object, method);
  }

  template <typename T>
  CFunctor(T* object, void (T::*method)(Args...) const) {
    bind_member<T, void (T::*)(Args...) const>(object, method);
  }

  Kind kind() const { return m_kind; }
  bool empty() const { return m_kind == KIND_EMPTY; }

  void operator()(Args... args) const {
    switch (m_kind) {
      case KIND_FUNCTION:
        m_function(args...);
        break;
      case KIND_MEMBER:
        m_invoke(*this, args...);
        break;
      case KIND_EMPTY:
        break;
    }
  }

 private:
  struct Probe {
    void method();
  };
  // Pointers to members are two words with the Itanium ABI whatever the class;
  // the static_assert below keeps us honest on other compilers.
  using Storage = std::aligned_storage_t<sizeof(void (Probe::*)()), alignof(void (Probe::*)())>;

  template <typename T, typename Method>
  void bind_member(T* object, Method method) {
    static_assert(sizeof(Method) <= sizeof(Storage), "member pointer too large");
    if (!object || !method) return;
    m_kind = KIND_MEMBER;
    m_object = const_cast<void*>(static_cast<const void*>(object));
    std::memcpy(&m_method, &method, sizeof(Method));
    m_invoke = [](const CFunctor& self, Args... args) {
      Method bound;
      std::memcpy(&bound, &self.m_method, sizeof(Method));
      (static_cast<T*>(self.m_object)->*bound)(args...);
    };
  }

  Kind m_kind = KIND_EMPTY;
  Function m_function = nullptr;
  void* m_object = nullptr;
  Storage m_method{};
  void (*m_invoke)(const CFunctor&, Args...) = nullptr;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Zentrova
