#pragma once

#include <QByteArray>

#include "common/bytes.h"

// Tiny boot loaders for the boot tests: each writes a marker to the first
// serial port and halts, so a boot in QEMU is checked by what reaches COM1.
namespace BootLoaders {

inline const QByteArray kBiosMarker = "BRENTA-BIOS-BOOT-OK";
inline const QByteArray kUefiMarker = "BRENTA-UEFI-BOOT-OK";

namespace detail {
inline QByteArray bytes(const unsigned char* data, int size)
{
    return QByteArray(reinterpret_cast<const char*>(data), size);
}
} // namespace detail

// What GRUB's ntldr command starts in place of the Windows boot manager:
// loaded at 2000:0000 and entered in real mode with DS=0. Writes the marker
// to COM1 a character at a time, waiting for the transmitter, then halts.
inline QByteArray Bios(const QByteArray& marker = kBiosMarker)
{
    static const unsigned char code[] = {
        0x8c, 0xc8,       //       mov  ax, cs
        0x8e, 0xd8,       //       mov  ds, ax        ; the message is in our own segment
        0xba, 0xfb, 0x03, //       mov  dx, 0x3fb     ; line control register
        0xb0, 0x03,       //       mov  al, 3         ; 8 data bits, divisor latch off
        0xee,             //       out  dx, al
        0xbe, 0x27, 0x00, //       mov  si, message   ; offset 0x27, right after the code
        0xac,             // next: lodsb
        0x84, 0xc0,       //       test al, al
        0x74, 0x11,       //       jz   done
        0x88, 0xc4,       //       mov  ah, al
        0xba, 0xfd, 0x03, //       mov  dx, 0x3fd     ; line status register
        0xec,             // wait: in   al, dx
        0xa8, 0x20,       //       test al, 0x20      ; transmitter holding register empty?
        0x74, 0xfb,       //       jz   wait
        0xb2, 0xf8,       //       mov  dl, 0xf8      ; dx = 0x3f8, the data register
        0x88, 0xe0,       //       mov  al, ah
        0xee,             //       out  dx, al
        0xeb, 0xea,       //       jmp  next
        0xfa,             // done: cli
        0xf4,             // halt: hlt
        0xeb, 0xfd,       //       jmp  halt
    };
    static_assert(sizeof code == 0x27, "the message offset in the code is 0x27");
    return detail::bytes(code, sizeof code) + marker + "\r\n" + '\0';
}

// The same for UEFI on x86-64: an EFI application, entered in long mode, that
// talks to COM1 directly rather than through the firmware's console.
inline QByteArray Uefi(const QByteArray& marker = kUefiMarker)
{
    static const unsigned char code[] = {
        0x66, 0xba, 0xfb, 0x03, //       mov  dx, 0x3fb
        0xb0, 0x03,             //       mov  al, 3
        0xee,                   //       out  dx, al
        0x48, 0x8d, 0x35, 0x1b,
        0x00, 0x00, 0x00,       //       lea  rsi, [rip + 0x1b]  ; the message at 0x29
        0xac,                   // next: lodsb
        0x84, 0xc0,             //       test al, al
        0x74, 0x12,             //       jz   done
        0x88, 0xc4,             //       mov  ah, al
        0x66, 0xba, 0xfd, 0x03, //       mov  dx, 0x3fd
        0xec,                   // wait: in   al, dx
        0xa8, 0x20,             //       test al, 0x20
        0x74, 0xfb,             //       jz   wait
        0xb2, 0xf8,             //       mov  dl, 0xf8
        0x88, 0xe0,             //       mov  al, ah
        0xee,                   //       out  dx, al
        0xeb, 0xe9,             //       jmp  next
        0xfa,                   // done: cli
        0xf4,                   // halt: hlt
        0xeb, 0xfd,             //       jmp  halt
    };
    static_assert(sizeof code == 0x29, "the message offset in the code is 0x29");
    constexpr int kFileAlign = 0x200;
    constexpr int kSectionRva = 0x1000;
    QByteArray text = detail::bytes(code, sizeof code) + marker + "\r\n" + '\0';
    text.append(QByteArray(kFileAlign - text.size(), '\0'));

    // The smallest PE32+ image the firmware loads: all headers in the first
    // 512 bytes, one section, no imports and no relocations (the code above
    // runs wherever it is put, and the loader relocates nothing when the
    // table is empty).
    QByteArray image(kFileAlign, '\0');
    image[0] = 'M';
    image[1] = 'Z';
    Bytes::Put32(image, 0x3c, 0x40); // where the PE header starts
    image.replace(0x40, 4, QByteArray("PE\0\0", 4));
    Bytes::Put16(image, 0x44, 0x8664); // machine: x86-64
    Bytes::Put16(image, 0x46, 1);      // one section
    Bytes::Put16(image, 0x54, 0xf0);   // optional header: 112 bytes and 16 directories
    Bytes::Put16(image, 0x56, 0x0022); // executable, large address aware
    const int opt = 0x58;
    Bytes::Put16(image, opt, 0x020b);                    // PE32+
    image[opt + 2] = 1;                                  // linker version
    Bytes::Put32(image, opt + 4, kFileAlign);            // size of code
    Bytes::Put32(image, opt + 16, kSectionRva);          // entry point
    Bytes::Put32(image, opt + 20, kSectionRva);          // base of code
    Bytes::Put32(image, opt + 24, 0x400000);             // preferred base (low half of 64 bits)
    Bytes::Put32(image, opt + 32, 0x1000);               // section alignment
    Bytes::Put32(image, opt + 36, kFileAlign);           // file alignment
    Bytes::Put32(image, opt + 56, kSectionRva + 0x1000); // size of the image in memory
    Bytes::Put32(image, opt + 60, kFileAlign);           // size of the headers
    Bytes::Put16(image, opt + 68, 10);                   // subsystem: EFI application
    Bytes::Put32(image, opt + 72, 0x10000);              // stack reserve
    Bytes::Put32(image, opt + 80, 0x1000);               // stack commit
    Bytes::Put32(image, opt + 88, 0x10000);              // heap reserve
    Bytes::Put32(image, opt + 96, 0x1000);               // heap commit
    Bytes::Put32(image, opt + 108, 16);                  // directories, all empty
    const int section = opt + 0xf0;
    image.replace(section, 5, ".text");
    Bytes::Put32(image, section + 8, quint32(text.size())); // size in memory
    Bytes::Put32(image, section + 12, kSectionRva);
    Bytes::Put32(image, section + 16, kFileAlign); // size in the file
    Bytes::Put32(image, section + 20, kFileAlign); // where in the file
    Bytes::Put32(image, section + 36, 0x60000020); // code, executable, readable
    return image + text;
}

} // namespace BootLoaders
