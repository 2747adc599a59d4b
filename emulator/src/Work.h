#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace SolEmu {

// A move-only void() callable that keeps captures of up to INLINE_BYTES in
// itself. A std::function allocates any closure over 16 bytes, and a post per
// message would allocate it on the sending thread and free it on the context
// thread.
class Work {
  public:
    Work() = default;
    Work(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): like std::function
    template <
        typename F, typename D = std::decay_t<F>,
        typename = std::enable_if_t<!std::is_same_v<D, Work> && !std::is_same_v<D, std::nullptr_t>>>
    Work(F&& f) {  // NOLINT(google-explicit-constructor): posts pass lambdas
        if constexpr (fitsInline<D>()) {
            new (storage) D(std::forward<F>(f));
            ops = &INLINE_OPS<D>;
        } else {
            *reinterpret_cast<D**>(storage) = new D(std::forward<F>(f));
            ops = &HEAP_OPS<D>;
        }
    }
    Work(Work&& other) noexcept { take(other); }
    Work& operator=(Work&& other) noexcept {
        if (this != &other) {
            reset();
            take(other);
        }
        return *this;
    }
    Work& operator=(std::nullptr_t) {
        reset();
        return *this;
    }
    Work(Work const&) = delete;
    Work& operator=(Work const&) = delete;
    ~Work() { reset(); }

    explicit operator bool() const { return ops != nullptr; }
    void operator()() { ops->call(storage); }

  private:
    static constexpr size_t INLINE_BYTES = 48;

    struct Ops {
        void (*call)(void*);
        // Moves the callable from the first storage into the second, leaving none behind.
        void (*move)(void*, void*);
        void (*destroy)(void*);
    };

    template <typename D>
    static constexpr bool fitsInline() {
        return sizeof(D) <= INLINE_BYTES && alignof(D) <= alignof(std::max_align_t) &&
               std::is_nothrow_move_constructible_v<D>;
    }

    template <typename D>
    static constexpr Ops INLINE_OPS{[](void* at) { (*static_cast<D*>(at))(); },
                                    [](void* from, void* to) {
                                        new (to) D(std::move(*static_cast<D*>(from)));
                                        static_cast<D*>(from)->~D();
                                    },
                                    [](void* at) { static_cast<D*>(at)->~D(); }};

    template <typename D>
    static constexpr Ops HEAP_OPS{
        [](void* at) { (**static_cast<D**>(at))(); },
        [](void* from, void* to) { *static_cast<D**>(to) = *static_cast<D**>(from); },
        [](void* at) { delete *static_cast<D**>(at); }};

    void take(Work& other) noexcept {
        if (other.ops != nullptr) {
            other.ops->move(other.storage, storage);
            ops = other.ops;
            other.ops = nullptr;
        }
    }
    void reset() {
        if (ops != nullptr) {
            Ops const* const current = ops;
            ops = nullptr;
            current->destroy(storage);
        }
    }

    alignas(std::max_align_t) unsigned char storage[INLINE_BYTES];
    Ops const* ops = nullptr;
};

}  // namespace SolEmu
