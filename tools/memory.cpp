// memory.cpp: the memory a fusion needs, and the memory at hand.
#include "memory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>

#include "fusion_call.h"

namespace lumora_fuse {
namespace {

struct MemoryBudget {
    double bytes = 0;  // 0: unknown
    const char *what = "available";
};

// The memory the kernel can give without swapping (MemAvailable), or the
// process's own limits when they are lower.
MemoryBudget memoryBudget() {
    MemoryBudget budget;
    if (FILE *meminfo = fopen("/proc/meminfo", "r")) {
        char line[256];
        long long kib = 0;
        while (fgets(line, sizeof line, meminfo))
            if (sscanf(line, "MemAvailable: %lld kB", &kib) == 1)
                budget.bytes = double(kib) * 1024;
        fclose(meminfo);
    }
    const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGESIZE);
    if (budget.bytes <= 0 && pages > 0 && pageSize > 0)
        budget = {double(pages) * double(pageSize), "of physical memory"};
    auto lower = [&budget](rlim_t limit, const char *what) {
        if (limit != RLIM_INFINITY && (budget.bytes <= 0 || double(limit) < budget.bytes))
            budget = {double(limit), what};
    };
    struct rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) == 0)
        lower(limit.rlim_cur, "address-space limit of the process");
    if (getrlimit(RLIMIT_DATA, &limit) == 0)
        lower(limit.rlim_cur, "data-size limit of the process");
    return budget;
}

std::string memoryText(double bytes) {
    char text[32];
    if (bytes >= 1024.0 * 1024 * 1024)
        snprintf(text, sizeof text, "%.1f GiB", bytes / (1024.0 * 1024 * 1024));
    else
        snprintf(text, sizeof text, "%.0f MiB", bytes / (1024.0 * 1024));
    return text;
}

}  // namespace

// Fitted to the peak resident memory of whole runs (GNU time; default two
// passes, 2 threads) at 1, 4, 12 and 50 MP with three exposures and at 1 and
// 4 MP with two: a fixed 272 MiB (chiefly the RGB-to-CIELab table, 256^3
// entries of 12 bytes), 3 bytes per picture pixel for every decoded exposure,
// and per fused pixel 24 bytes plus 13 per exposure (its copy for the
// library, its weights and levels). 3 to 9% above the measured peaks from 4
// to 50 MP, 19% at 1 MP, when it was fitted. Since the fusion process gives
// its copy of the decoded exposures back, the peaks are lower (12 MP: 906
// MiB, 4 MP: 499, 1 MP: 300; the estimate 21, 10 and 14% above): left as it
// is until the 50 MP peak has been measured again.
double fusionBytes(double picturePixels, double fusedPixels, int exposures) {
    return 272.0 * 1024 * 1024 + picturePixels * 3 * exposures + fusedPixels * (24 + 13 * exposures);
}

bool fusionFitsMemory(int width, int height, const Loupe &loupe, int exposures, std::string &error) {
    // A picture or loupe narrower than the filter is fused extended; a loupe
    // outside the picture is refused later, with its own message.
    const FusionArea area = fusionArea(width, height, loupeFits(loupe, width, height) ? loupe : Loupe{});
    const double need = fusionBytes(double(width) * height, double(area.width) * area.height, exposures);
    const MemoryBudget budget = memoryBudget();
    if (budget.bytes <= 0 || need <= budget.bytes)
        return true;
    error = "image too large for the memory at hand: " + std::to_string(width) + "x" + std::to_string(height) +
            " pixels; fusing " + std::to_string(exposures) + " such exposures needs about " + memoryText(need) +
            ", more than the " + memoryText(budget.bytes) + " " + budget.what;
    return false;
}

bool memoryHolds(int width, int height, int exposures, double moreBytes) {
    const double pixels = double(width) * height;
    const double need = fusionBytes(pixels, pixels, exposures) + moreBytes;
    const MemoryBudget budget = memoryBudget();
    return budget.bytes > 0 && need <= budget.bytes;
}

}  // namespace lumora_fuse
