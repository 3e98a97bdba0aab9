#include "Brightmix/VolumeHUDView.h"

#include <algorithm>
#include <cmath>

namespace brightmix {

double VolumeHUDView::fillFraction() const {
    if (isMuted || std::isnan(volume) || volume < 0) return 0;
    return std::min(volume, 1.0);
}

ui::Node VolumeHUDView::body() const {
    const bool isSilent = isMuted || volume == 0;
    ui::Node root = ui::stack(
        "hud", {ui::text("hud.name", outputName, ui::TextRole::headline),
                ui::row("hud.level",
                        {ui::image("hud.speaker", isSilent ? "speaker.slash.fill" : "speaker.fill"),
                         ui::levelMeter("hud.bar", "Volume", fillFraction(), 0, 1, ""),
                         ui::image("hud.loud", "speaker.wave.3.fill")})});
    root.accessibilityLabel = outputName;
    return root;
}

} // namespace brightmix
