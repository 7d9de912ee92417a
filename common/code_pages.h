// The program's and its libraries' code in memory.
#pragma once

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace nuvio {

// An address as the loader says it.
inline void* pointer_to(ElfW(Addr) address) {
    return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

// The loader has written its addresses among the code, as few old libraries need it.
inline bool has_written_code(ElfW(Addr) base, std::span<const ElfW(Phdr)> parts) {
    for (const ElfW(Phdr) & part : parts) {
        if (part.p_type != PT_DYNAMIC) {
            continue;
        }
        for (auto* entry = static_cast<const ElfW(Dyn)*>(pointer_to(base + part.p_vaddr));
             entry->d_tag != DT_NULL; ++entry) {
            if (entry->d_tag == DT_TEXTREL ||
                (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0)) {
                return true;
            }
        }
    }
    return false;
}

// What the program and its libraries have in memory as it is in their files, code and constants, is
// let go: a loader that has looked for names has touched most of it. What is used comes back at its
// next use, from the kernel's cache of files while that has it, else from the disk: not for a
// moment at which a sound waits for nothing. Any thread.
inline void give_back_code_pages() {
    const auto give_back = [](dl_phdr_info* info, size_t, void*) {
        const std::string_view name = info->dlpi_name;
        // A copy: they stand in what is let go, and the first look would bring back 64 KiB of it.
        const std::vector<ElfW(Phdr)> parts(info->dlpi_phdr, info->dlpi_phdr + info->dlpi_phnum);
        if ((!name.empty() && !name.starts_with('/')) || has_written_code(info->dlpi_addr, parts)) {
            return 0;  // without a path: the kernel's own
        }
        const auto page = static_cast<ElfW(Addr)>(sysconf(_SC_PAGESIZE));
        for (const ElfW(Phdr) & part : parts) {
            if (part.p_type == PT_LOAD && (part.p_flags & PF_W) == 0) {
                const ElfW(Addr) from = info->dlpi_addr + part.p_vaddr;
                const ElfW(Addr) begin = from & ~(page - 1);
                madvise(pointer_to(begin), from + part.p_memsz - begin, MADV_DONTNEED);
            }
        }
        return 0;
    };
    dl_iterate_phdr(give_back, nullptr);
}

}  // namespace nuvio
