// is_valid_utf8 on any text: the label and playlist check must never read
// past the terminator, however a sequence is cut.
#include <cstddef>
#include <cstdint>

#include "DevIdentify.h"
#include "fuzz_bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The bytes up to the first NUL are the text, as a C string arrives.
    char* text = fuzz_text(data, size);
    is_valid_utf8(text);
    free(text);
    return 0;
}
