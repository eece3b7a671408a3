// MDLs describe non-paged buffers; they are pool blocks tagged 'Mdl ', so a
// leaked one shows up in the pool leak report.
#include "kernel/kernel.h"
#include "kernel/pool.h"

#include <cstring>

namespace {

constexpr ULONG_PTR kPageSize = 0x1000;
constexpr CSHORT kMdlSourceIsNonPagedPool = 0x0004;

}  // namespace

PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer,
                         BOOLEAN ChargeQuota, PIRP Irp) {
    auto address = reinterpret_cast<ULONG_PTR>(VirtualAddress);
    ULONG_PTR offset = address & (kPageSize - 1);
    SIZE_T pages = (offset + Length + kPageSize - 1) / kPageSize;
    SIZE_T size = sizeof(MDL) + pages * sizeof(ULONG_PTR);  // followed by its page frames
    if (size > 0x7FFF)
        return nullptr;
    auto mdl = static_cast<PMDL>(winsim::kernel::AllocatePoolBlock(
        NonPagedPool, size, winsim::kernel::kTagMdl, "IoAllocateMdl"));
    if (mdl == nullptr)
        return nullptr;
    std::memset(mdl, 0, size);
    mdl->Size = static_cast<CSHORT>(size);
    mdl->StartVa = reinterpret_cast<PVOID>(address - offset);
    mdl->ByteOffset = static_cast<ULONG>(offset);
    mdl->ByteCount = Length;
    auto frames = reinterpret_cast<ULONG_PTR*>(mdl + 1);
    for (SIZE_T i = 0; i < pages; ++i)
        frames[i] = address / kPageSize + i;
    if (Irp != nullptr) {
        if (!SecondaryBuffer || Irp->MdlAddress == nullptr) {
            Irp->MdlAddress = mdl;
        } else {
            PMDL last = Irp->MdlAddress;
            while (last->Next != nullptr)
                last = last->Next;
            last->Next = mdl;
        }
    }
    return mdl;
}

void NTAPI IoFreeMdl(PMDL Mdl) {
    winsim::kernel::FreePoolBlock(Mdl, winsim::kernel::kTagMdl, "IoFreeMdl");
}

void NTAPI MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList) {
    PMDL mdl = MemoryDescriptorList;
    mdl->MappedSystemVa = static_cast<char*>(mdl->StartVa) + mdl->ByteOffset;
    mdl->MdlFlags |= kMdlSourceIsNonPagedPool;
}
