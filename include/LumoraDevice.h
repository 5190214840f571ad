/* LumoraDevice.h: where Lumora Fusion runs its edge-preserving filter.
 *
 * An extension of this library's own, beside the fusion interface, which it
 * leaves as it is: a host that never calls these functions fuses on the CPU.
 * A host that opts in to an OpenCL device gets the same bytes: the device is
 * checked against the CPU on its first use in the process and refused, with
 * one line on the standard error stream, if it differs; an OpenCL error
 * during a fusion sends the rest of the work to the CPU, with one line too.
 * With a device chosen, the progress callback is also called between the
 * bands of a level, with the amount reported so far; a cancel there ends
 * the fusion as a cancel at the next report would. */
#ifndef LUMORA_DEVICE_H
#define LUMORA_DEVICE_H

#include "LumoraExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* lumora_use_device: the first device that is not a CPU and passes its
 * check, else the CPU (on a CPU, this library's own path is the faster). */
#define LUMORA_DEVICE_AUTO (-3)
/* lumora_use_device: the CPU. */
#define LUMORA_DEVICE_CPU (-1)

/* The number of OpenCL devices on this machine: 0 without an OpenCL runtime,
 * or from a library built without OpenCL. */
LUMORA_API int lumora_device_count(void);

/* Device index's name (its CL_DEVICE_NAME), valid while the process runs;
 * null for an index out of range. */
LUMORA_API const char *lumora_device_name(int index);

/* Where later fusions filter: LUMORA_DEVICE_CPU (the default),
 * LUMORA_DEVICE_AUTO, or a device index, checked on its first use. Returns
 * the index now in use (LUMORA_DEVICE_CPU for the CPU, also when AUTO finds
 * no device that passes), or -2 for an index that names no device, leaving
 * the choice as it was. */
LUMORA_API int lumora_use_device(int index);

/* What filtered the last level of the last fusion: a device's name, or
 * "CPU". Valid until the next call of a function of this library. */
LUMORA_API const char *lumora_last_device(void);

#ifdef __cplusplus
}
#endif

#endif /* LUMORA_DEVICE_H */
