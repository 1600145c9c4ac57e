#pragma once
#include <QString>
#include <cstdint>

namespace vistrel::vcam {

// Four ASCII characters packed into 32 bits, the first character most significant:
// "glob" is 0x676C6F62.
using FourCharCode = std::uint32_t;

// Folds exactly four ASCII characters into a code. Anything else prints a line and
// yields '????'; it never fails towards the caller.
FourCharCode makeFourCharCode(const QString &text);

// The four characters of a code, most significant first. A byte of 0x80 or above has
// no character and stops the program.
QString fourCharCodeString(FourCharCode code);

// The codes the virtual-camera link uses.
namespace codes {
inline constexpr FourCharCode devices = 0x64657623;     // "dev#": devices of the system object
inline constexpr FourCharCode deviceUID = 0x75696420;   // "uid ": unique identifier of a device
inline constexpr FourCharCode streams = 0x73746D23;     // "stm#": streams of a device
inline constexpr FourCharCode just = 0x6A757374;        // "just": the camera's own string property
inline constexpr FourCharCode scopeGlobal = 0x676C6F62; // "glob"
inline constexpr std::uint32_t elementMain = 0;
inline constexpr FourCharCode pixelFormatBGRA = 0x42475241; // "BGRA"
} // namespace codes

} // namespace vistrel::vcam
