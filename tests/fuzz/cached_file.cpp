// The file in memory, as FFmpeg may use it: any reads and seeks, against a vector and a position.
#include "check.h"
#include "internals.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>

namespace
{

struct Model
{
    std::vector<uint8_t> bytes;
    __int128 position = 0; // no offset is too absurd for it

    int Read(uint8_t* buffer, int size)
    {
        if (!buffer || size <= 0)
            return AVERROR(EINVAL);
        if (position == Size())
            return AVERROR_EOF;
        const auto count = static_cast<int>(std::min<__int128>(size, Size() - position));
        std::copy_n(bytes.data() + position, count, buffer);
        position += count;
        return count;
    }

    int64_t Seek(int64_t offset, int whence)
    {
        if (whence == AVSEEK_SIZE)
            return static_cast<int64_t>(Size());
        const int from = whence & ~AVSEEK_FORCE;
        if (from != SEEK_SET && from != SEEK_CUR && from != SEEK_END)
            return AVERROR(EINVAL);
        const __int128 base = from == SEEK_SET ? 0 : from == SEEK_CUR ? position : Size();
        if (base + offset < 0 || base + offset > Size())
            return AVERROR(EINVAL);
        position = base + offset;
        return static_cast<int64_t>(position);
    }

    __int128 Size() const { return static_cast<__int128>(bytes.size()); }
};

void CompareRead(TovrelAudioCachedFileInput& cache, Model& model, int size, bool bBuffer)
{
    // Exactly as long as it may be written to.
    std::vector<uint8_t> read(static_cast<size_t>(std::max(size, 1)));
    std::vector<uint8_t> expected = read;
    const int result =
        Internals::ReadCachedFilePacket(&cache, bBuffer ? read.data() : nullptr, size);
    Check(result == model.Read(bBuffer ? expected.data() : nullptr, size), "a read's result");
    Check(read == expected, "the bytes read");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    TovrelAudioCachedFileInput cache;
    cache.Bytes = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 300));
    Model model{cache.Bytes};
    while (input.remaining_bytes() > 0)
    {
        switch (input.ConsumeIntegralInRange(0, 4))
        {
        case 0:
        case 1:
            CompareRead(cache, model, input.ConsumeIntegralInRange(-2, 400), true);
            break;
        case 2:
        {
            const auto offset = input.ConsumeBool() ? input.ConsumeIntegralInRange<int>(-310, 310)
                                                    : input.ConsumeIntegral<int64_t>();
            const int whence = input.PickValueInArray(
                {SEEK_SET, SEEK_CUR, SEEK_END, SEEK_SET | AVSEEK_FORCE, SEEK_CUR | AVSEEK_FORCE,
                 SEEK_END | AVSEEK_FORCE, AVSEEK_SIZE, AVSEEK_SIZE | AVSEEK_FORCE,
                 input.ConsumeIntegral<int>()});
            Check(Internals::SeekCachedFile(&cache, offset, whence) == model.Seek(offset, whence),
                  "a seek's result");
            break;
        }
        case 3:
            CompareRead(cache, model, input.ConsumeIntegralInRange(-2, 400), false);
            break;
        default:
            uint8_t byte = 0;
            Check(Internals::ReadCachedFilePacket(nullptr, &byte, 1) == AVERROR(EINVAL) &&
                      Internals::SeekCachedFile(nullptr, 0, SEEK_SET) == AVERROR(EINVAL),
                  "without a file both fail");
        }
        Check(static_cast<__int128>(cache.Position) == model.position, "the position");
    }
    Check(cache.Bytes == model.bytes, "the file stays as it is");
    return 0;
}
