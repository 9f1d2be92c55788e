// The public point of a certificate. The first byte selects the curve or is the coordinate size;
// the point follows.

#include "keystore/keystore_blob.h"
#include "target.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    Input input(data, size);
    const uint8_t choice = input.byte();
    const size_t half =
        choice < NV::cngCurves.size() ? NV::cngCurves[choice].coordinateSize() : choice;
    const NV::Bytes point = input.rest();
    const NV::PointCoordinates split = NV::splitPoint(point, half);

    const bool whole = !point.empty() && point[0] == 4 && (point.size() - 1) / 2 >= half;
    HOLDS(split.x.size() == (whole ? half : 0));
    HOLDS(split.y.size() == split.x.size());
    for (size_t i = 0; i < split.x.size(); ++i)
        HOLDS(split.x[i] == point[1 + i] && split.y[i] == point[1 + half + i]);

    NV::Bytes coordinates = split.x;
    coordinates.insert(coordinates.end(), split.y.begin(), split.y.end());
    const NV::Bytes joined = NV::uncompressedPoint(coordinates);
    if (whole)
        HOLDS(std::equal(joined.begin(), joined.end(), point.begin()));
    // The coordinates are the same with and without trailing bytes.
    const NV::PointCoordinates again = NV::splitPoint(joined, split.x.size());
    HOLDS(again.x == split.x && again.y == split.y);
    return 0;
}
