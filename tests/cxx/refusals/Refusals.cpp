// Uses that must not compile, one for each CASE; CASE 0 is a use that must.
#include "Framework/GCL/cxx/FifoBuffer.h"
#include "Framework/GCL/cxx/HashTable.h"
#include "Framework/GCL/cxx/List.h"
#include "Framework/GCL/cxx/MemoryPool.h"
#include "Framework/GCL/cxx/SigpipeGuard.h"
#include "Framework/GCL/cxx/Stack.h"
#include "Framework/GCL/cxx/TcpSocket.h"

#include <string>
#include <utility>

struct TwoWords {
    unsigned long a;
    unsigned long b;
};
struct Padded {
    short a;
    char b;
};

void use()
{
#if CASE == 0
    gcl::List<int> list;
    static_cast<void>(list.remove(1));
    gcl::List<Padded> padded;
    static_cast<void>(padded.pushTail({1, 2}));
    gcl::FifoBuffer<TwoWords> fifo(2, eTaskingModeNone);
    gcl::Stack<int*> stack(2);
#elif CASE == 1
    gcl::List<std::string> list; // not trivially copyable
    static_cast<void>(list.pushTail("text"));
#elif CASE == 2
    gcl::List<TwoWords> list; // too large
    static_cast<void>(list.pushTail({1, 2}));
#elif CASE == 3
    gcl::List<const int> list;
    static_cast<void>(list.pushTail(1));
#elif CASE == 4
    gcl::HashTable<TwoWords> table(1);
    static_cast<void>(table.set("a", {1, 2}));
#elif CASE == 5
    gcl::Stack<std::string> stack(1);
    static_cast<void>(stack.push("text"));
#elif CASE == 6
    gcl::FifoBuffer<std::string> fifo(1, eTaskingModeNone);
#elif CASE == 7
    gcl::List<Padded> list; // it can be stored, but not looked for by its bytes
    static_cast<void>(list.remove({1, 2}));
#elif CASE == 8
    gcl::List<float> list;
    static_cast<void>(list.itemExists(0.0f));
#elif CASE == 9
    gcl::FifoBuffer<int> fifo(1, eTaskingModeNone);
    gcl::FifoBuffer<int> moved(std::move(fifo));
#elif CASE == 10
    gcl::MemoryPool pool(4, 1);
    gcl::MemoryPool copied(pool);
#elif CASE == 11
    gcl::TcpSocket socket;
    socket.close(); // ignores the result
#elif CASE == 12
    gcl::Result result = 0x8000u; // a number is no result
#elif CASE == 13
    gcl::List<int> list;
    if (list.pushTail(1)) { // neither success nor failure is true
    }
#endif
}
