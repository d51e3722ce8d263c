// A non-owning reference to a callable, for callbacks that only live for the duration of one call
// (per-reply callbacks of synchronous requests). Unlike std::function it never allocates; the
// referenced callable must outlive the call it is passed to, which holds for arguments.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace ubus {

template <typename Signature>
class FunctionRef;

template <typename R, typename... Args>
class FunctionRef<R(Args...)> {
public:
    FunctionRef() = default;
    FunctionRef(std::nullptr_t) {}  // NOLINT: an empty callback reads naturally as nullptr

    template <typename F>
    requires(!std::is_same_v<std::remove_cvref_t<F>, FunctionRef> && std::is_invocable_r_v<R, F&, Args...>)
        FunctionRef(F&& f)  // NOLINT: implicit, like std::function
        : obj_(const_cast<void*>(static_cast<const void*>(std::addressof(f)))),
          call_([](void* obj, Args... args) -> R {
              return std::invoke(*static_cast<std::remove_reference_t<F>*>(obj), std::forward<Args>(args)...);
          }) {}

    explicit operator bool() const { return call_ != nullptr; }
    R operator()(Args... args) const { return call_(obj_, std::forward<Args>(args)...); }

private:
    void* obj_ = nullptr;
    R (*call_)(void*, Args...) = nullptr;
};

}  // namespace ubus
