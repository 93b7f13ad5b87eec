/* CMemoryPool: message buffers of one size, in constant time and without the general allocator. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/ResultCodes.h"

enum { kMessageBytes = 64, kMessages = 2 };

/* [malloc] */
/* Copies a text into a buffer of the pool. NULL if it is too long or no buffer is free: the pool
 * has reported which. */
static char* newMessage(CMemoryPool* pool, const char* text)
{
    void* block = NULL;
    const size_t bytes = strlen(text) + 1;
    if (GCL_IS_FAILURE(CMemoryPool_Malloc(pool, (uint32_t)bytes, &block))) {
        return NULL;
    }
    return memcpy(block, text, bytes);
}

/* The pool looks at no pointer that it is given back. Clearing the caller's variable is what keeps
 * a buffer from being freed twice. */
static void freeMessage(CMemoryPool* pool, char** message)
{
    if (*message != NULL && !GCL_IS_FAILURE(CMemoryPool_Free(pool, *message))) {
        *message = NULL;
    }
}
/* [malloc end] */

/* [statistics] */
static void printUse(const CMemoryPool* pool)
{
    uint32_t blockBytes = 0;
    uint32_t blocks = 0;
    uint32_t freeBlocks = 0;
    if (CMemoryPool_Statistics(pool, &blockBytes, &blocks, &freeBlocks) == GCL_OK) {
        printf("%u of %u blocks of %u bytes in use\n", blocks - freeBlocks, blocks, blockBytes);
    }
}
/* [statistics end] */

int main(void)
{
    CMemoryPool pool;
    CMemoryPool_Construct(&pool, kMessageBytes, kMessages);

    char* first = newMessage(&pool, "carrier on");
    char* second = newMessage(&pool, "carrier off");
    char* third = newMessage(&pool, "one too many");
    printUse(&pool);
    if (first == NULL || second == NULL || third != NULL) {
        CMemoryPool_Destruct(&pool);
        return EXIT_FAILURE;
    }
    printf("%s, %s\n", first, second);

    freeMessage(&pool, &first);
    freeMessage(&pool, &first); /* does nothing */
    printUse(&pool);
    third = newMessage(&pool, "now there is room");
    printUse(&pool);
    freeMessage(&pool, &third);
    freeMessage(&pool, &second);
    printUse(&pool);
    CMemoryPool_Destruct(&pool);
    return EXIT_SUCCESS;
}
