// gcl::Stack: the owner of a CStack whose entries are values of one type.
//
// It destructs its stack, can be moved and cannot be copied. Each operation but construct is one
// call of the plain function of the same name, whose comment in CStack.h is its manual; what
// differs stands here. All that CStack.h says of threads, allocation failure and uiStatus holds.
//
// T is any type that can be copied by its bytes and fits a machine word: a pointer, a number, a
// small structure (Word.h). The stack never owns what an entry points to.
//
// A stack that was built without a capacity, destructed or moved from is an empty one with room for
// nothing: every push finds it full.
#ifndef GCL_CXX_STACK_H
#define GCL_CXX_STACK_H

#include <cstddef>
#include <cstdint>
#include <utility>

#include "Framework/GCL/CStack.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/cxx/Error.h"
#include "Framework/GCL/cxx/Length.h"
#include "Framework/GCL/cxx/Word.h"

namespace gcl {

template <typename T>
class Stack {
    using Word = detail::Word<T>;

public:
    Stack() noexcept = default;

    // As construct, but a failure is thrown as a std::system_error.
    explicit Stack(std::size_t capacity) : Stack() { throwIfFailed(construct(capacity)); }
    ~Stack() { CStack_Destruct(&stack); }
    Stack(Stack&& other) noexcept : stack(std::exchange(other.stack, kNone)) {}
    Stack& operator=(Stack&& other) noexcept
    {
        Stack moved(std::move(other));
        std::swap(stack, moved.stack);
        return *this;
    }
    Stack(const Stack&) = delete;
    Stack& operator=(const Stack&) = delete;

    // native is the plain structure, for plain calls. The stack goes on owning its array.
    CStack& native() noexcept { return stack; }
    const CStack& native() const noexcept { return stack; }

    // construct frees what the stack held and makes it an empty one for `capacity` entries.
    //   GCL_OK                constructed
    //   GCL_INVALID_ARGUMENT  capacity is 2^32 or more; the stack is as it was (silent)
    Result construct(std::size_t capacity)
    {
        if (!detail::fits<std::uint32_t>(capacity)) {
            return GCL_INVALID_ARGUMENT;
        }
        CStack_Destruct(&stack);
        CStack_Construct(&stack, static_cast<std::uint32_t>(capacity));
        return GCL_OK;
    }

    void destruct()
    {
        CStack_Destruct(&stack);
        stack = kNone;
    }

    Result push(T entry)
    {
        return Result(CStack_Push(&stack, reinterpret_cast<void*>(Word::of(entry))));
    }

    // pop stores the entry on success and leaves `entry` alone otherwise.
    Result pop(T& entry)
    {
        void* taken = nullptr;
        const Result result(CStack_Pop(&stack, &taken));
        if (!result.failed()) {
            Word::store(reinterpret_cast<unsigned long>(taken), entry);
        }
        return result;
    }

    bool isEmpty() const { return CStack_IsEmpty(&stack) != 0; }
    std::uint32_t getCurrentSize() const { return CStack_GetCurrentSize(&stack); }

private:
    static constexpr CStack kNone = {nullptr, -1, 0, GCL_OK};
    CStack stack = kNone;
};

} // namespace gcl

#endif // GCL_CXX_STACK_H
