// Cryptographic randomness from the kernel (getrandom), the stand-in for the
// platform's arc4random and UUID generators. Thread-safe, never fails visibly:
// should the kernel source fail, a per-process generator seeded from the clock,
// the process id and an address fills in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zub {

class Random {
public:
    static void fill(void* buffer, std::size_t size);
    /// A uniformly random 32-bit value (arc4random).
    static std::uint32_t uint32();
    /// A fresh random (version 4) UUID in canonical text: 36 characters, upper-case
    /// hexadecimal in groups 8-4-4-4-12 joined by "-".
    static std::string uuidString();
};

}  // namespace zub
