// What an export of the floor looks like.
#ifndef KIVGCL_BENCH_FLOOR_FLOOR_H
#define KIVGCL_BENCH_FLOOR_FLOOR_H

#define FLOOR_API extern "C" __attribute__((visibility("default")))

#endif // KIVGCL_BENCH_FLOOR_FLOOR_H
