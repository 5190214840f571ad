// The device extension's C functions (LumoraDevice.h), over the OpenCL
// level pass's own choice of device.
#include <string>
#include <vector>

#include "LumoraDevice.h"
#include "filter/level_pass_device.h"

namespace {

// Names fetched once: the pointers handed out stay valid.
const std::vector<std::string> &names() {
    static const std::vector<std::string> list = lumora::device::deviceNames();
    return list;
}

}  // namespace

extern "C" LUMORA_API int lumora_device_count(void) { return (int)names().size(); }

extern "C" LUMORA_API const char *lumora_device_name(int index) {
    if (index < 0 || index >= (int)names().size()) return nullptr;
    return names()[index].c_str();
}

extern "C" LUMORA_API int lumora_use_device(int index) {
    using namespace lumora::device;
    if (index != LUMORA_DEVICE_AUTO) {
        if (!selectDevice(index)) return -2;
        return index;
    }
    // The first device, not a CPU, whose check passes; a refused one has
    // said so. On a CPU this library's own path is the faster one.
    for (int d = 0; d < (int)names().size(); d++)
        if (!deviceIsCpu(d) && selectDevice(d) && selectedDevicePasses()) return d;
    selectDevice(LUMORA_DEVICE_CPU);
    return LUMORA_DEVICE_CPU;
}

extern "C" LUMORA_API const char *lumora_last_device(void) {
    static std::string last;
    last = lumora::device::lastLevelDevice();
    return last.c_str();
}
