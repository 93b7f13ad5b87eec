// CStack: a last-in-first-out stack of pointers with a fixed capacity, kept in a structure that the
// caller owns.
//
// An entry is stored as it is given, NULL included; the stack never looks at what it points to and
// never owns it. The stack allocates and frees its entry array (array-form operator new[]) and
// takes no other memory. Results are codes of ResultCodes.h unless stated otherwise. It reports
// nothing: whether a full or empty stack is an error is for its caller to say. Every operation
// takes constant time.
//
// A stack takes no lock: threads that share one serialise their calls. No function checks a pointer
// for NULL; a NULL pointer is the caller's error. Construct comes first, Destruct last. A copy of
// the structure shares the entry array with the original: only one of the two may be used and
// destructed from then on.
//
// CStack_Push, CStack_Pop, CStack_IsEmpty and CStack_GetCurrentSize first look at uiStatus. Read as
// a signed number of 32 bits, a status of 0x8000 or more is a failure, and they return it and do
// nothing else; a value of 0x80000000 or more is negative when read so and stops nothing. The
// library never sets anything but 0.
#ifndef GCL_CSTACK_H
#define GCL_CSTACK_H

#include <stdint.h>

#include "Framework/GCL/Api.h"

GCL_C_BEGIN

// A stack. Construct it before any other use; the fields may be read, but are the stack's to write.
typedef struct CStack {
    void** pEntries;     // the entries, uiCapacity of them; owned; NULL after Destruct
    int32_t iTop;        // index of the top entry, -1 when the stack is empty
    uint32_t uiCapacity; // the number of entries that fit, as given to Construct
    uint32_t uiStatus;   // 0; see above for what another value does
} CStack;

// CStack_Construct makes pThis an empty stack for uiCapacity entries. What the structure held
// before is forgotten, not freed. With a capacity of 0, or above 0x80000000 on 64-bit processors,
// every push finds the stack full. Where the array cannot be allocated, std::bad_alloc passes
// through the call and pThis is an empty stack of capacity 0; a C caller on ARM must be compiled
// with -fexceptions for that. On 32-bit processors an array of 2^31 bytes or more, a capacity of
// 0x20000000 and up, is always refused so (by g++ with std::bad_array_new_length, which is a
// std::bad_alloc).
GCL_API void CStack_Construct(CStack* pThis, uint32_t uiCapacity);

// CStack_Destruct frees the entry array and sets pEntries to NULL; the other fields keep their
// values. The stack must be constructed anew before it is used again.
GCL_API void CStack_Destruct(CStack* pThis);

// CStack_Push puts pEntry on top.
//   GCL_OK          stored
//   GCL_STACK_FULL  uiCapacity entries are held; nothing changed (silent)
//   uiStatus        it is a failure; nothing changed (silent)
GCL_API uint32_t CStack_Push(CStack* pThis, void* pEntry);

// CStack_Pop takes the top entry off and stores it in *ppEntry. It does not look at ppEntry where
// it returns anything but GCL_OK.
//   GCL_OK           taken
//   GCL_STACK_EMPTY  no entry is held; *ppEntry is untouched (silent)
//   uiStatus         it is a failure; nothing changed (silent)
GCL_API uint32_t CStack_Pop(CStack* pThis, void** ppEntry);

// CStack_IsEmpty returns 1 if no entry is held, else 0; uiStatus if it is a failure.
GCL_API uint32_t CStack_IsEmpty(const CStack* pThis);

// CStack_GetCurrentSize returns the number of entries held; uiStatus if it is a failure.
GCL_API uint32_t CStack_GetCurrentSize(const CStack* pThis);

GCL_C_END

#endif // GCL_CSTACK_H
