// Descriptor: the owner of a descriptor; closes it at the end of the scope.
#ifndef GCL_PRIVATE_DESCRIPTOR_H
#define GCL_PRIVATE_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace gcl {

class Descriptor {
public:
    // Takes over what a call such as socket(2) returned; a negative number owns nothing.
    explicit Descriptor(int descriptor = kNone) : number(descriptor) {}
    ~Descriptor() { reset(); }
    // It moves, which takes copies and assignments away.
    Descriptor(Descriptor&& other) noexcept : number(other.release()) {}

    bool isOpen() const { return number >= 0; }
    int get() const { return number; }

    // Gives the descriptor to the caller, who closes it from now on.
    int release() { return std::exchange(number, kNone); }

    // Closes the descriptor and owns another one instead, or none.
    void reset(int descriptor = kNone)
    {
        const int old = std::exchange(number, descriptor);
        if (old >= 0) {
            // Linux closes the descriptor even where it reports a failure.
            static_cast<void>(close(old));
        }
    }

private:
    static constexpr int kNone = -1;
    int number;
};

} // namespace gcl

#endif // GCL_PRIVATE_DESCRIPTOR_H
