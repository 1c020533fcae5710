/* krncpi.h - internals shared by the code-page state and the codec. */
#ifndef KRNCPI_H
#define KRNCPI_H

namespace krn {

enum CodePage : int { kCpUtf8 = 0, kCpLatin1 = 1, kCpWin1252 = 2 };

/* The process code page; takes it from the environment on first use. */
__attribute__((visibility("hidden"))) CodePage CurrentCodePage();

}  // namespace krn

#endif
