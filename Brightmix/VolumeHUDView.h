// The volume indicator's content: the output's name, a speaker symbol, a level bar and the
// loud-speaker symbol, as a view tree the indicator panel draws.
//
// Thread: any. Realtime-safe: no.
#pragma once

#include <string>

#include "ui/View.h"

namespace brightmix {

struct VolumeHUDView {
    double volume = 0;
    bool isMuted = false;
    std::string outputName;

    // 0 when muted or the volume is negative or not a number, else min(volume, 1).
    double fillFraction() const;
    ui::Node body() const;
};

} // namespace brightmix
