// The platform's key/value file and the slot table read from it.
#include "storage/PlatformConfig.h"
#include "storage/SdSlots.h"

#include <QBuffer>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
    QBuffer input(&bytes);
    input.open(QIODevice::ReadOnly | QIODevice::Text);
    ParseSdSlots(ParsePlatformConfig(input));
    return 0;
}
