// InstructionCounter: a plug-in of qemu's user emulation that counts what a program executes.
//
// At each mark that the program sets (CountsDriver.cpp), and at its end, it writes a line with the
// instructions and the system calls of the first thread so far. Instructions are those of the
// emulated processor; neither the machine nor its load changes them.
// Usage: qemu-PROCESSOR -plugin libInstructionCounter.so,out=FILE PROGRAM...
//
// Debian ships no header for plug-ins; the declarations below are the interface's (version 1).
#include <inttypes.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tests/counts/Mark.h"

#define EXPORTED __attribute__((visibility("default")))

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
typedef void (*OnBlock)(unsigned vcpu, void* userData);
typedef void (*OnTranslation)(qemu_plugin_id_t id, struct qemu_plugin_tb* block);
typedef void (*OnSyscall)(qemu_plugin_id_t id, unsigned vcpu, int64_t number, uint64_t a1,
                          uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6,
                          uint64_t a7, uint64_t a8);
typedef void (*OnExit)(qemu_plugin_id_t id, void* userData);

size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, OnTranslation call);
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* block, OnBlock call, int flags,
                                          void* userData);
void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t id, OnSyscall call);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, OnExit call, void* userData);

EXPORTED int qemu_plugin_version = 1;

static FILE* out;
static uint64_t instructions;
static uint64_t syscalls;

static void writeCounts(void)
{
    fprintf(out, "%" PRIu64 " %" PRIu64 "\n", instructions, syscalls);
}

static void onBlock(unsigned vcpu, void* userData)
{
    if (vcpu == 0) {
        instructions += (uintptr_t)userData;
    }
}

static void onTranslation(qemu_plugin_id_t id, struct qemu_plugin_tb* block)
{
    (void)id;
    // The count of instructions is known before the block runs and is handed to each run of it.
    qemu_plugin_register_vcpu_tb_exec_cb(block, onBlock, 0,
                                         (void*)(uintptr_t)qemu_plugin_tb_n_insns(block));
}

static void onSyscall(qemu_plugin_id_t id, unsigned vcpu, int64_t number, uint64_t a1, uint64_t a2,
                      uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8)
{
    (void)id, (void)number, (void)a2, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
    if (vcpu != 0) {
        return;
    }
    if ((uint32_t)a1 == KIVGCL_COUNTS_MARK) {
        writeCounts();
    } else {
        ++syscalls;
    }
}

static void onExit(qemu_plugin_id_t id, void* userData)
{
    (void)id, (void)userData;
    writeCounts();
    fclose(out);
}

EXPORTED int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv)
{
    (void)info;
    if (argc != 1 || strncmp(argv[0], "out=", 4) != 0) {
        fputs("InstructionCounter: out=FILE is needed\n", stderr);
        return -1;
    }
    out = fopen(argv[0] + 4, "w");
    if (out == NULL) {
        perror(argv[0] + 4);
        return -1;
    }
    qemu_plugin_register_vcpu_tb_trans_cb(id, onTranslation);
    qemu_plugin_register_vcpu_syscall_cb(id, onSyscall);
    qemu_plugin_register_atexit_cb(id, onExit, NULL);
    return 0;
}
