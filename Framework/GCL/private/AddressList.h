// AddressList: the owner of a list that getaddrinfo(3) made; frees it at the end of the scope.
#ifndef GCL_PRIVATE_ADDRESSLIST_H
#define GCL_PRIVATE_ADDRESSLIST_H

#include <netdb.h>

#include <utility>

namespace gcl {

class AddressList {
public:
    AddressList() = default;
    ~AddressList() { reset(); }
    AddressList(const AddressList&) = delete;
    AddressList& operator=(const AddressList&) = delete;

    // Calls getaddrinfo, owns the list that it made and returns its result. The list is empty
    // where the call made none. Once for each object.
    int resolve(const char* host, const char* service, const addrinfo& hints)
    {
        addrinfo* made = nullptr;
        const int result = getaddrinfo(host, service, &hints, &made);
        // A failed call (the C library's EAI_ codes are negative) says nothing about the pointer.
        if (result >= 0) {
            head = made;
        }
        return result;
    }

    // The first entry; NULL for an empty list.
    const addrinfo* first() const { return head; }

    void reset()
    {
        addrinfo* const old = std::exchange(head, nullptr);
        if (old != nullptr) {
            freeaddrinfo(old);
        }
    }

private:
    addrinfo* head = nullptr;
};

} // namespace gcl

#endif // GCL_PRIVATE_ADDRESSLIST_H
