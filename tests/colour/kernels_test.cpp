// False colour's fast kernel against its plain loop on the target this run selects:
// every depth value, over ordinary, narrow, wide, empty and reversed ranges.
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "colour/false_colour.h"

namespace {

using namespace qvapi;

TEST(ColourKernels, FalseColourIsExact)
{
    // Every depth value, ordinary, narrow, wide, empty and reversed ranges.
    std::vector<uint16_t> all(65536);
    for (size_t d = 0; d < all.size(); ++d)
        all[d] = static_cast<uint16_t>(d);
    // Widths that divide 1021 times a level exactly (1021, 2042, 3063, 64 * 1021), widths up
    // to 1021 (several levels per depth), one just under 2042 (over half a level per depth),
    // the widest (65535), ranges reaching past either end of the 16-bit depths, and ranges
    // the plain loop serves.
    for (auto range : {std::make_pair(0, 7500), std::make_pair(300, 4000), std::make_pair(1000, 1001),
                       std::make_pair(-50, 3), std::make_pair(0, 1), std::make_pair(700, 700),
                       std::make_pair(900, 100), std::make_pair(60000, 70000), std::make_pair(-100000, 100000),
                       std::make_pair(0, 1021), std::make_pair(100, 2142), std::make_pair(7, 3070), std::make_pair(10, 2051), std::make_pair(5, 65349),
                       std::make_pair(2, 3), std::make_pair(40, 551), std::make_pair(0, 65535),
                       std::make_pair(-65525, 10), std::make_pair(-3000, 2000), std::make_pair(-10, -5),
                       std::make_pair(70000, 70010)}) {
        // All depths, and a run that starts and ends off the vector width.
        for (size_t first : {0, 3}) {
            const size_t n = all.size() - 2 * first;
            std::vector<uint8_t> ref(3 * n), fast(ref.size());
            FalseColour(all.data() + first, n, range.first, range.second, ref.data());
            FalseColourFast(all.data() + first, n, range.first, range.second, fast.data());
            ASSERT_EQ(ref, fast) << range.first << ".." << range.second;
        }
    }
}

}  // namespace
