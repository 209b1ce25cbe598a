// SPDX-License-Identifier: Apache-2.0
#include "util/library_pages.h"

#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <span>

namespace telvora {

namespace {

using Segment = ElfW(Phdr);

// The loader gives addresses as integers.
void* pointerTo(ElfW(Addr) address) {
    return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

// Whether the loader wrote to segments that are not writable now: their pages must stay.
bool hasTextRelocations(const dl_phdr_info& object, std::span<const Segment> segments) {
    const auto dynamic = std::ranges::find(segments, ElfW(Word){PT_DYNAMIC}, &Segment::p_type);
    if (dynamic == segments.end()) return false;
    const auto* entry = static_cast<const ElfW(Dyn)*>(pointerTo(object.dlpi_addr + dynamic->p_vaddr));
    for (; entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_TEXTREL) return true;
        if (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0) return true;
    }
    return false;
}

int unmapPagesOf(dl_phdr_info* object, size_t /*size*/, void* /*context*/) {
    const std::span segments(object->dlpi_phdr, object->dlpi_phnum);
    if (hasTextRelocations(*object, segments)) return 0;
    const auto pageSize = static_cast<ElfW(Addr)>(sysconf(_SC_PAGESIZE));
    for (const Segment& segment : segments) {
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
        const ElfW(Addr) address = object->dlpi_addr + segment.p_vaddr;
        const ElfW(Addr) begin = address / pageSize * pageSize;
        madvise(pointerTo(begin), address + segment.p_memsz - begin, MADV_DONTNEED);
    }
    return 0;
}

}  // namespace

void unmapLoadedPages() {
    dl_iterate_phdr(unmapPagesOf, nullptr);
}

}  // namespace telvora
