/// \file
/// TDelegate: a function and its bound context.
#pragma once

#include <vlmcore/memory.h>

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace Velmor {

template <class Signature>
class TDelegate;

namespace Impl {

template <class Callable>
inline constexpr bool IsDelegate = false;
template <class Signature>
inline constexpr bool IsDelegate<TDelegate<Signature>> = true;

/// True when a callable is known to lead nowhere: a null pointer, an empty delegate of another signature.
template <class Callable>
[[nodiscard]] constexpr bool IsEmptyCallable([[maybe_unused]] Callable const& callable)
{
    if constexpr (std::is_pointer_v<Callable> || std::is_member_pointer_v<Callable> || IsDelegate<Callable>)
        return !callable;
    else
        return false;
}

} // namespace Impl

/// A callable and its bound context. Callables of up to 32 bytes are kept inside without allocating, larger ones in a
/// block of EHeap::Pool16. Empty by default; calling an empty delegate is an error of the caller, test it first.
template <class R, class... A>
class TDelegate<R(A...)> {
public:
    /// Bytes of the largest callable that is kept inside.
    static constexpr std::size_t InlineSize = 32;

    TDelegate() = default;
    TDelegate(std::nullptr_t) {}

    template <class Callable>
        requires(!std::is_same_v<std::remove_cvref_t<Callable>, TDelegate> &&
                 std::is_invocable_r_v<R, std::decay_t<Callable>&, A...>)
    /// Takes any callable of this signature; of a null pointer to a function it stays empty. Throws CBadAllocation for
    /// a large one, and what its copy throws.
    TDelegate(Callable&& callable)
    {
        if constexpr (std::is_function_v<std::remove_reference_t<Callable>>) {
            Set(&callable);
        }
        else {
            if (!Impl::IsEmptyCallable(callable))
                Set(std::forward<Callable>(callable));
        }
    }

    TDelegate(TDelegate const& other)
    {
        if (other.m_operations != nullptr)
            other.m_operations->copy(*this, other);
    }

    TDelegate(TDelegate&& other) noexcept { TakeFrom(other); }

    ~TDelegate() { Reset(); }

    TDelegate& operator=(TDelegate const& other)
    {
        if (this != &other) {
            TDelegate copy(other);
            Reset();
            TakeFrom(copy);
        }
        return *this;
    }

    TDelegate& operator=(TDelegate&& other) noexcept
    {
        if (this != &other) {
            Reset();
            TakeFrom(other);
        }
        return *this;
    }

    /// Empties the delegate.
    void Reset() noexcept
    {
        if (m_operations != nullptr)
            std::exchange(m_operations, nullptr)->destroy(*this);
        m_call = nullptr;
    }

    explicit operator bool() const { return m_call != nullptr; }

    R operator()(A... arguments) const { return m_call(*this, std::forward<A>(arguments)...); }

private:
    struct SOperations {
        void (*copy)(TDelegate& to, TDelegate const& from);
        void (*move)(TDelegate& to, TDelegate& from) noexcept;
        void (*destroy)(TDelegate& delegate) noexcept;
    };

    // How an argument travels to the callable: small plain values as they are, others by reference, so that a delegate
    // makes no copy of its own.
    template <class Argument>
    using Pass = std::conditional_t<std::is_reference_v<Argument> ||
                                        (std::is_trivially_copyable_v<Argument> && sizeof(Argument) <= sizeof(void*)),
                                    Argument, Argument&&>;

    template <class Callable>
    static constexpr bool FitsInline =
        sizeof(Callable) <= InlineSize && alignof(Callable) <= alignof(std::max_align_t) &&
        std::is_nothrow_move_constructible_v<Callable>;

    template <class Callable>
    [[nodiscard]] Callable* GetCallable() const
    {
        if constexpr (FitsInline<Callable>)
            return std::launder(reinterpret_cast<Callable*>(const_cast<std::byte*>(m_storage)));
        else
            return *std::launder(reinterpret_cast<Callable* const*>(m_storage));
    }

    template <class Source>
    void Set(Source&& source)
    {
        using Callable = std::decay_t<Source>;
        if constexpr (FitsInline<Callable>)
            ::new (static_cast<void*>(m_storage)) Callable(std::forward<Source>(source));
        else
            ::new (static_cast<void*>(m_storage))
                Callable*(Memory::New<Callable>(EHeap::Pool16, std::forward<Source>(source)));
        m_call = &Call<Callable>;
        m_operations = &Operations<Callable>;
    }

    void TakeFrom(TDelegate& other) noexcept
    {
        if (other.m_operations != nullptr)
            other.m_operations->move(*this, other);
    }

    template <class Callable>
    static R Call(TDelegate const& self, Pass<A>... arguments)
    {
        return static_cast<R>((*self.template GetCallable<Callable>())(std::forward<A>(arguments)...));
    }

    template <class Callable>
    static void Copy(TDelegate& to, TDelegate const& from)
    {
        to.Set(*static_cast<Callable const*>(from.template GetCallable<Callable>()));
    }

    template <class Callable>
    static void Move(TDelegate& to, TDelegate& from) noexcept
    {
        if constexpr (FitsInline<Callable>) {
            ::new (static_cast<void*>(to.m_storage)) Callable(std::move(*from.template GetCallable<Callable>()));
            from.template GetCallable<Callable>()->~Callable();
        }
        else
            ::new (static_cast<void*>(to.m_storage)) Callable*(from.template GetCallable<Callable>());
        to.m_call = std::exchange(from.m_call, nullptr);
        to.m_operations = std::exchange(from.m_operations, nullptr);
    }

    template <class Callable>
    static void Destroy(TDelegate& delegate) noexcept
    {
        if constexpr (FitsInline<Callable>)
            delegate.template GetCallable<Callable>()->~Callable();
        else
            Memory::Delete(delegate.template GetCallable<Callable>());
    }

    template <class Callable>
    static constexpr SOperations Operations{&Copy<Callable>, &Move<Callable>, &Destroy<Callable>};

    alignas(std::max_align_t) std::byte m_storage[InlineSize];
    R (*m_call)(TDelegate const&, Pass<A>...) = nullptr;
    SOperations const* m_operations = nullptr;
};

} // namespace Velmor
