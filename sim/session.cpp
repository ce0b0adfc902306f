#include "session.h"

#include <algorithm>
#include <cmath>

namespace qvsim {

namespace {

constexpr double kTwoPi = 6.28318530717958647692;

// A well-mixed 32-bit seed from the session's seed and the frame number (SplitMix64's
// finaliser), so that neighbouring frames get unrelated noise.
uint32_t FrameSeed(uint32_t seed, uint64_t k)
{
    uint64_t z = (uint64_t(seed) << 32) + k + 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return static_cast<uint32_t>((z ^ (z >> 31)) & 0xFFFFFFFFu);
}

}  // namespace

SessionFrame SessionFrameAt(const SessionSpec& session, uint64_t k)
{
    SessionFrame f;
    f.scene = session.scene;
    f.setup = session.setup;
    f.timeS = session.fps > 0 ? static_cast<double>(k) / session.fps : 0.0;
    const double phase = session.periodS > 0 ? kTwoPi * f.timeS / session.periodS : 0.0;
    f.scene.boxOffsetXMm[0] += session.boxSwingMm * std::sin(phase);
    f.scene.boxOffsetZMm[1] -= session.boxApproachMm * 0.5 * (1.0 - std::cos(phase));
    const double warmed = session.warmingTimeS > 0 ? 1.0 - std::exp(-f.timeS / session.warmingTimeS) : 1.0;
    f.setup.temperatureC = std::clamp(session.setup.temperatureC + session.warmingC * warmed, kTemperatureRangeC.lo,
                                      kTemperatureRangeC.hi);
    f.setup.seed = FrameSeed(session.setup.seed, k);
    return f;
}

}  // namespace qvsim
