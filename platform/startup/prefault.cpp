// prefault.cpp - start-up tuning for programs that run once per command.
//
// A short-lived process pays for its code page by page: every first touch of
// a 64 KiB window of the program's code is a page fault, and on the virtual
// machines the lab runs on one fault costs about as much as thirty system
// calls. This maps the program's read-only segments (code and constants) in
// one madvise call, so the faults the run would take one at a time are not
// taken at all. Kernels without MADV_POPULATE_READ (before 5.14) refuse it
// and nothing changes.
//
// Linked statically (KVN_PREFAULT_AT_ENTRY), the program enters at
// kvn_prefault_start, which does this before the C library's own start-up:
// that start-up alone (CPU features, tunables, the string functions'
// resolvers, spread over the whole code) touches a dozen windows. Only the
// read-only segments are mapped: most pages of the writable one are written,
// which faults again whatever was mapped before. Linked dynamically
// (sanitizer builds), a constructor that runs before any other maps the
// read-only segments instead.
//
// It also keeps malloc to one arena: the QMI client's reader thread would
// otherwise map and fault in an arena of its own for the few blocks it uses.
#include <elf.h>
#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22
#endif

namespace {

#ifdef KVN_PREFAULT_AT_ENTRY

// A system call without the C library, whose errno lives in thread-local
// storage that does not exist yet. The result is not needed.
void raw_madvise(uintptr_t addr, uintptr_t len)
{
#if defined(__x86_64__)
    long ret;
    asm volatile("syscall"
                 : "=a"(ret)
                 : "0"(long(SYS_madvise)), "D"(addr), "S"(len), "d"(long(MADV_POPULATE_READ))
                 : "rcx", "r11", "memory");
#elif defined(__aarch64__)
    register long x8 asm("x8") = SYS_madvise;
    register uintptr_t x0 asm("x0") = addr;
    register uintptr_t x1 asm("x1") = len;
    register long x2 asm("x2") = MADV_POPULATE_READ;
    asm volatile("svc #0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2) : "memory");
#endif
}

#endif

} // namespace

#ifdef KVN_PREFAULT_AT_ENTRY

extern "C" const ElfW(Ehdr) __ehdr_start; // the program's ELF header, mapped with its first segment

// Runs on the process's first stack, before the C library is set up: no
// library calls, no thread-local storage. `sp` is the initial stack pointer
// (argc, argv, envp, then the auxiliary vector, which gives the page size).
extern "C" __attribute__((used, no_stack_protector, no_profile_instrument_function)) void
kvn_prefault_image(const uintptr_t *sp)
{
    const uintptr_t *p = sp + 1 + sp[0] + 1; // past argc and argv's terminator
    while (*p)
        ++p; // envp
    uintptr_t page = 4096;
    for (++p; p[0] != AT_NULL; p += 2)
        if (p[0] == AT_PAGESZ)
            page = p[1];
    const auto *eh = &__ehdr_start;
    const auto *ph = reinterpret_cast<const ElfW(Phdr) *>(reinterpret_cast<const char *>(eh) + eh->e_phoff);
    uintptr_t bias = 0;
    for (int i = 0; i < eh->e_phnum; ++i)
        if (ph[i].p_type == PT_LOAD && ph[i].p_offset == 0) {
            bias = reinterpret_cast<uintptr_t>(eh) - ph[i].p_vaddr;
            break;
        }
    // Adjacent segments (header, code, constants) go in one call.
    uintptr_t from = 0, to = 0;
    for (int i = 0; i < eh->e_phnum; ++i) {
        if (ph[i].p_type != PT_LOAD || (ph[i].p_flags & PF_W))
            continue;
        uintptr_t begin = (bias + ph[i].p_vaddr) & ~(page - 1);
        uintptr_t end = (bias + ph[i].p_vaddr + ph[i].p_memsz + page - 1) & ~(page - 1);
        if (begin != to) {
            if (to != from)
                raw_madvise(from, to - from);
            from = begin;
        }
        to = end;
    }
    if (to != from)
        raw_madvise(from, to - from);
}

// The entry point: keeps what the C library's _start reads from the kernel
// (the stack pointer, and the register it takes a finaliser from), maps the
// image, then goes on at _start.
#if defined(__x86_64__)
asm(R"(
    .text
    .globl kvn_prefault_start
    .type kvn_prefault_start, @function
kvn_prefault_start:
    mov %rsp, %rdi
    push %rdx
    sub $8, %rsp
    call kvn_prefault_image
    add $8, %rsp
    pop %rdx
    jmp _start
    .size kvn_prefault_start, .-kvn_prefault_start
)");
#elif defined(__aarch64__)
asm(R"(
    .text
    .globl kvn_prefault_start
    .type kvn_prefault_start, %function
kvn_prefault_start:
    mov x19, x0
    mov x0, sp
    bl kvn_prefault_image
    mov x0, x19
    b _start
    .size kvn_prefault_start, .-kvn_prefault_start
)");
#else
#error "KVN_PREFAULT_AT_ENTRY is for x86-64 and aarch64"
#endif

#else

namespace {

int populate_read_only_segments(dl_phdr_info *info, size_t, void *)
{
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD || (ph.p_flags & PF_W))
            continue;
        uintptr_t begin = (info->dlpi_addr + ph.p_vaddr) & ~(page - 1);
        uintptr_t end = (info->dlpi_addr + ph.p_vaddr + ph.p_memsz + page - 1) & ~(page - 1);
        madvise(reinterpret_cast<void *>(begin), end - begin, MADV_POPULATE_READ);
    }
    return 1; // the program itself comes first; its libraries are left alone
}

} // namespace

#endif

namespace {

__attribute__((constructor(101))) void prefault_program()
{
#ifndef KVN_PREFAULT_AT_ENTRY
    dl_iterate_phdr(populate_read_only_segments, nullptr);
#endif
    mallopt(M_ARENA_MAX, 1);
}

} // namespace
