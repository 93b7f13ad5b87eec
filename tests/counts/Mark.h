// The mark between two counts: a close(2) of a descriptor that no process has.
#ifndef KIVGCL_TESTS_COUNTS_MARK_H
#define KIVGCL_TESTS_COUNTS_MARK_H

#define KIVGCL_COUNTS_MARK 0x4B474C00

#endif // KIVGCL_TESTS_COUNTS_MARK_H
