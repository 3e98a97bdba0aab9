/* Every real-time header must compile as plain C11: outside tools include them from C. */
#include <stddef.h>

#include "realtime/CoreAudioShapes.h"
#include "realtime/FilterDesign.h"
#include "realtime/ProcessingState.h"
#include "realtime/RecordingTap.h"
#include "realtime/SignalCounter.h"

/* Touch the types so that a header that declares but never defines one is caught. */
size_t brightmixRealtimeHeaderSizes(void);
size_t brightmixRealtimeHeaderSizes(void) {
    struct RecordingFile file = {0, 0};
    BiquadCoefficients coefficients = {1.0, 0.0, 0.0, 0.0, 0.0};
    return sizeof(AudioBufferList) + sizeof(AudioTimeStamp) + sizeof file + sizeof coefficients +
           (size_t)kProcessingSlotCount + (size_t)kCrossoverModeHighPass;
}
