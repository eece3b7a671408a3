// Device property requests as an application sends them through KS: the
// stream class checks them against the published tables before the driver
// answers. Failures become exceptions that name the property and the status.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "ornixctl/session.h"

namespace ornixctl {

using Bytes = std::vector<uint8_t>;

// A request the driver (or the class) refused; what() reads
// "NAME: STATUS_NOT_SUPPORTED (0xC00000BB)".
class PropertyFailure : public std::runtime_error {
  public:
    PropertyFailure(const std::string& what, NTSTATUS status);
    NTSTATUS Status() const { return status_; }

  private:
    NTSTATUS status_;
};

struct PropertyAddress {
    GUID set;
    ULONG id;
    std::string what;  // the name errors use
};

// A get into a buffer of `size` bytes; the bytes the driver reported.
Bytes GetProperty(Session& session, const PropertyAddress& address, ULONG size,
                  const Bytes& extra = {});
// A get of an answer whose size the driver tells: a size query first.
Bytes GetSizedProperty(Session& session, const PropertyAddress& address, const Bytes& extra = {});
void SetProperty(Session& session, const PropertyAddress& address, const Bytes& data,
                 const Bytes& extra = {});

// Little-endian fields of answers and requests.
uint32_t WordAt(const Bytes& bytes, size_t offset);
uint16_t HalfAt(const Bytes& bytes, size_t offset);
int64_t QuadAt(const Bytes& bytes, size_t offset);
void PutWord(Bytes& bytes, size_t offset, uint32_t word);
void PutHalf(Bytes& bytes, size_t offset, uint16_t half);

}  // namespace ornixctl
