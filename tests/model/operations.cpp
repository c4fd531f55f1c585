#include "operations.h"

#include <iterator>
#include <limits>
#include <ostream>

namespace
{

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// What comes first is what a failing sequence shrinks to. The rest are the borders of what the
// operations take, what lies beyond them, and ordinary values.
constexpr double kSeconds[] = {0.0,  0.5,  1.0,       0.25,       2.0,  0.999, 1e-7,  -1.0,
                               1e18, kNaN, kInfinity, -kInfinity, 0.75, 1.1,   0.125, 0.013};
constexpr double kFractions[] = {0.0,  0.5, 1.0,  0.25,      0.75,       0.99,
                                 -0.5, 1.5, kNaN, kInfinity, -kInfinity, 0.001};
constexpr double kVolumes[] = {1.0, 0.5,  0.0,  1.5,       -0.25,      2.0,
                               0.7, 1e-3, kNaN, kInfinity, -kInfinity, 1.0};
constexpr double kPans[] = {0.0, 0.5, -0.5, 1.0, -1.0, 0.1, 3.0, -3.0, kNaN, kInfinity, 0.0};
constexpr double kGainsDb[] = {0.0,   6.0,   -6.0, 18.0,      -18.0, 30.0,
                               -30.0, 0.005, kNaN, kInfinity, 0.011, 0.0};
// Around the worker's polls of 8 and 20 ms, and long enough to come to the end of something.
constexpr double kWaits[] = {0.008, 0.001, 0.02, 0.1, 0.0079, 0.0201, 0.3, 0.05, 0.6};

template <class Table>
rc::Gen<double> From(const Table& table)
{
    return rc::gen::map(rc::gen::inRange<size_t>(0, std::size(table)),
                        [&table](size_t index) { return table[index]; });
}

rc::Gen<Operation> Make(Operation::Kind kind, int choices = 1,
                        const rc::Gen<double>& number = rc::gen::just(0.0))
{
    return rc::gen::apply(
        [kind](int choice, double value) {
            return Operation{kind, choice, value};
        },
        rc::gen::inRange(0, choices), number);
}

} // namespace

rc::Gen<Operations> RandomOperations(int sources, const Weights& weights)
{
    using enum Operation::Kind;
    constexpr int kOneBandTooMany = 11;
    return rc::gen::container<Operations>(rc::gen::weightedOneOf<Operation>({
        {weights.wait, Make(Wait, 1, From(kWaits))},
        {weights.look, Make(Look)},
        {weights.play, Make(Play, sources, From(kSeconds))},
        {weights.seek, Make(SeekToSeconds, 1, From(kSeconds))},
        {weights.seek, Make(SeekToFraction, 1, From(kFractions))},
        {weights.pause, Make(SetPaused, 2)},
        {weights.pause, Make(TogglePaused)},
        {weights.stop, Make(Stop)},
        {weights.stop, Make(RequestStop)},
        {weights.control, Make(SetVolume, 1, From(kVolumes))},
        {weights.control, Make(AdjustVolume, 1, From(kVolumes))},
        {weights.control, Make(SetPan, 1, From(kPans))},
        {weights.control, Make(AdjustPan, 1, From(kPans))},
        {weights.control, Make(SetEqualizerEnabled, 2)},
        {weights.control, Make(SetEqualizerBandGain, kOneBandTooMany, From(kGainsDb))},
        {weights.control, Make(SetEqualizerBands, 2, From(kGainsDb))},
        {2 * weights.control, Make(SetTap, 3)},
    }));
}

std::ostream& operator<<(std::ostream& out, const Operation& operation)
{
    using enum Operation::Kind;
    const auto [kind, choice, number] = operation;
    const char* truth = choice ? "true" : "false";
    switch (kind)
    {
    case Wait:
        return out << "wait(" << number << ")";
    case Look:
        return out << "CurrentSeconds()";
    case Play:
        return out << "Play(source " << choice << ", from " << number << ")";
    case SeekToSeconds:
        return out << "SeekToSeconds(" << number << ")";
    case SeekToFraction:
        return out << "SeekToFraction(" << number << ")";
    case SetPaused:
        return out << "SetPaused(" << truth << ")";
    case TogglePaused:
        return out << "TogglePaused()";
    case Stop:
        return out << "Stop()";
    case RequestStop:
        return out << "RequestStop()";
    case SetVolume:
        return out << "SetVolume(" << number << ")";
    case AdjustVolume:
        return out << "AdjustVolume(" << number << ")";
    case SetPan:
        return out << "SetPan(" << number << ")";
    case AdjustPan:
        return out << "AdjustPan(" << number << ")";
    case SetEqualizerEnabled:
        return out << "SetEqualizerEnabled(" << truth << ")";
    case SetEqualizerBandGain:
        return out << "SetEqualizerBandGain(" << choice << ", " << number << ")";
    case SetEqualizerBands:
        return out << "SetEqualizerBands(" << truth << ", {" << number << ", 0, ..., "
                   << number / 2.0 << "})";
    case SetTap:
        return out << "SetAudioPCMCallback("
                   << (choice == 0   ? "none"
                       : choice == 1 ? "tap"
                                     : "tap that replaces itself")
                   << ")";
    }
    return out;
}

void showValue(const Operations& operations, std::ostream& out)
{
    for (const Operation& operation : operations)
        out << "\n    " << operation;
}
