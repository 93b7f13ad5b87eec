// CStack beside its floor, GLib's pointer array, APR's array and std::vector.
#include "Framework/GCL/CStack.h"

#include <apr_general.h>
#include <apr_tables.h>
#include <glib.h>
#include <vector>

#include "Framework/GCL/cxx/Stack.h"
#include "bench/floor/CStackFloor.h"
#include "bench/support/Bench.h"

namespace {

// A round pushes `depth` pointers and pops them again, so that an operation is half a push and half
// a pop.
template <typename Push, typename Pop>
void pushAndPop(benchmark::State& state, int depth, const Push& push, const Pop& pop)
{
    char entries[2] = {};
    uint32_t failures = 0;
    for (auto _ : state) {
        for (int i = 0; i < depth; ++i) {
            failures |= push(&entries[i & 1]);
        }
        void* last = nullptr;
        for (int i = 0; i < depth; ++i) {
            failures |= pop(&last);
        }
        benchmark::DoNotOptimize(last);
        failures |= last != &entries[0];
    }
    bench::require(state, failures == 0, "an entry was lost");
    bench::setOperations(state, 2.0 * depth);
}

void addPushAndPop(int depth)
{
    bench::Case("CStack_Push, CStack_Pop", {1.05, 0.75})
        .at("depth", depth)
        .ours([depth](benchmark::State& state) {
            CStack stack;
            CStack_Construct(&stack, static_cast<uint32_t>(depth));
            pushAndPop(
                state, depth, [&](void* entry) { return CStack_Push(&stack, entry); },
                [&](void** entry) { return CStack_Pop(&stack, entry); });
            CStack_Destruct(&stack);
        })
        .floor([depth](benchmark::State& state) {
            FloorStack stack;
            floorStackConstruct(&stack, static_cast<uint32_t>(depth));
            pushAndPop(
                state, depth, [&](void* entry) { return floorStackPush(&stack, entry); },
                [&](void** entry) { return floorStackPop(&stack, entry); });
            floorStackDestruct(&stack);
        })
        .shown("gcl::Stack", "the C++ layer, which calls the same functions",
               [depth](benchmark::State& state) {
                   gcl::Stack<void*> stack(static_cast<size_t>(depth));
                   pushAndPop(
                       state, depth, [&](void* entry) { return stack.push(entry).code(); },
                       [&](void** entry) { return stack.pop(*entry).code(); });
               })
        .peer("GPtrArray",
              [depth](benchmark::State& state) {
                  GPtrArray* const array = g_ptr_array_sized_new(static_cast<guint>(depth));
                  pushAndPop(
                      state, depth,
                      [&](void* entry) {
                          g_ptr_array_add(array, entry);
                          return 0U;
                      },
                      [&](void** entry) {
                          *entry = g_ptr_array_remove_index_fast(array, array->len - 1);
                          return 0U;
                      });
                  g_ptr_array_free(array, TRUE);
              })
        .peer("apr_array",
              [depth](benchmark::State& state) {
                  apr_pool_t* pool = nullptr;
                  apr_pool_create(&pool, nullptr);
                  apr_array_header_t* const array = apr_array_make(pool, depth, sizeof(void*));
                  pushAndPop(
                      state, depth,
                      [&](void* entry) {
                          *static_cast<void**>(apr_array_push(array)) = entry;
                          return 0U;
                      },
                      [&](void** entry) {
                          *entry = *static_cast<void**>(apr_array_pop(array));
                          return 0U;
                      });
                  apr_pool_destroy(pool);
              })
        .shown("std::vector", "inlined into its caller", [depth](benchmark::State& state) {
            std::vector<void*> stack;
            stack.reserve(static_cast<size_t>(depth));
            pushAndPop(
                state, depth,
                [&](void* entry) {
                    stack.push_back(entry);
                    return 0U;
                },
                [&](void** entry) {
                    *entry = stack.back();
                    stack.pop_back();
                    return 0U;
                });
        });
}

} // namespace

void bench::addCases()
{
    apr_initialize();
    for (const int depth : {1, 32, 1024}) {
        addPushAndPop(depth);
    }
}
