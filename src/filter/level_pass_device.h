// level_pass_device.h: the 8-bit level pass on an OpenCL device, with the
// CPU's bytes. The process chooses a device (none by default); a device is
// checked against the CPU on its first use and refused if it differs; any
// OpenCL error sends the level, and every later one, back to the CPU.
#pragma once

#include <string>
#include <vector>

#include "filter/filter.h"

namespace lumora::device {

// The OpenCL devices of every platform, in the order their indices count
// them (empty without an OpenCL runtime, or in a build without OpenCL).
std::vector<std::string> deviceNames();
// Whether device index is a CPU (where this library's own CPU path is the
// faster one); false for an index that names no device.
bool deviceIsCpu(int index);

// Where levels run from now on, for the whole process: -1 the CPU (the
// default), else device index. False, leaving the choice as it was, for an
// index that names no device.
bool selectDevice(int index);
int selectedDevice();
// Whether the selected device passes its check against the CPU (run once
// per device and process); false for the CPU.
bool selectedDevicePasses();
// The name of whatever filtered the last level: a device's name, or "CPU".
std::string lastLevelDevice();

// Rows of one level into a.imgOutput on the selected device, in bands of
// rows (the host's share of a band on nbProc threads); the caller smooths
// them. False when the CPU must filter the level:
// no device chosen, a level the device pass does not cover, a device that
// failed its check, or an OpenCL error (then the device is dropped, with
// one line on stderr, and the CPU filters this level and the rest).
bool levelRows(const LevelPassArgs &a, int nbProc);

// Between two bands of a level the device pass asks the fusion's host
// whether to go on: through the driver's callback, with the amount reported
// so far (so a host sees it repeated). A cancel there stops the device work
// at once, and the driver ends the fusion at its next report as if the host
// had cancelled there. Set for one fusion; null when none runs.
void setBandPoll(ProgressCallback callback, const float *amount);
bool cancelledBetweenBands();

// The level pass's reference on one thread: filterPixel8 over every pixel.
void referenceRows(const LevelPassArgs &a);

}  // namespace lumora::device
