/* CFifoBuffer: samples handed from a producer thread to a consumer thread. Nobody polls: Put waits
 * while the ring is full, Get while it is empty. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/ResultCodes.h"

enum { kSlots = 4, kSamples = 10 };

typedef struct Sample {
    uint32_t uiNumber; /* 0 ends the stream */
    int32_t iValue;
} Sample;

/* [retry] */
/* A signal whose handler was installed without SA_RESTART ends a wait with GCL_SEMAPHORE_FAILED,
 * and nothing was stored or taken. So call again; every other failure is final. */
static uint32_t put(CFifoBuffer* samples, const Sample* sample)
{
    uint32_t result;
    do {
        result = CFifoBuffer_Put(samples, sample);
    } while (result == GCL_SEMAPHORE_FAILED);
    return result;
}

static uint32_t get(CFifoBuffer* samples, Sample* sample)
{
    uint32_t result;
    do {
        result = CFifoBuffer_Get(samples, sample);
    } while (result == GCL_SEMAPHORE_FAILED);
    return result;
}
/* [retry end] */

/* [producer] */
static void* produce(void* argument)
{
    CFifoBuffer* const samples = argument;
    for (uint32_t i = 1; i <= kSamples; ++i) {
        const Sample sample = {i, (int32_t)(i * i)};
        if (GCL_IS_FAILURE(put(samples, &sample))) {
            break;
        }
    }
    const Sample end = {0, 0};
    (void)put(samples, &end); /* a failure has been reported; there is nobody else to tell */
    return NULL;
}
/* [producer end] */

int main(void)
{
    /* [construct] */
    /* Cleared first, so that a FIFO that cannot be constructed refuses its calls. */
    CFifoBuffer samples;
    memset(&samples, 0, sizeof samples);
    CFifoBuffer_Construct(&samples, sizeof(Sample), kSlots, eTaskingModeSemaphore);
    /* [construct end] */

    pthread_t producer;
    if (pthread_create(&producer, NULL, produce, &samples) != 0) {
        CFifoBuffer_Destruct(&samples);
        return EXIT_FAILURE;
    }

    /* [consumer] */
    Sample sample = {0, 0};
    uint32_t received = 0;
    int64_t sum = 0;
    while (!GCL_IS_FAILURE(get(&samples, &sample)) && sample.uiNumber != 0) {
        ++received;
        sum += sample.iValue;
    }
    /* [consumer end] */

    /* No thread may use the FIFO while it is destructed. */
    (void)pthread_join(producer, NULL);
    printf("%u samples, sum %lld\n", received, (long long)sum);
    CFifoBuffer_Destruct(&samples);
    return received == kSamples ? EXIT_SUCCESS : EXIT_FAILURE;
}
