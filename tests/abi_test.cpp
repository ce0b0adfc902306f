// The binary interface: record layouts and the order of the virtual slots.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <gtest/gtest.h>

#include "qvreconstruction/reconstruction.h"

namespace {

using qvapi::CameraCalibrationParam;
using qvapi::Intrinsics;
using qvapi::Reconstruction;

static_assert(sizeof(qvapi::DeviceType) == 4 && sizeof(qvapi::StreamType) == 4 &&
                  sizeof(qvapi::FlipMode) == 4,
              "enumerations are 32-bit");

// Lens block: 13 four-byte fields.
static_assert(std::is_standard_layout<Intrinsics>::value, "plain record");
static_assert(sizeof(Intrinsics) == 13 * 4, "13 four-byte fields");
static_assert(offsetof(Intrinsics, k1) == 2 * 4 && offsetof(Intrinsics, fx) == 7 * 4 &&
                  offsetof(Intrinsics, cy) == 10 * 4 && offsetof(Intrinsics, width) == 11 * 4 &&
                  offsetof(Intrinsics, height) == 12 * 4,
              "lens block field order");

// The calibration record: the text is field 3, after two int32.
static_assert(std::is_standard_layout<CameraCalibrationParam>::value, "offsets are meaningful");
constexpr size_t kText = 8;
constexpr size_t kDepthLens = kText + sizeof(std::string);
constexpr size_t kAfterLenses = kDepthLens + 2 * sizeof(Intrinsics);
static_assert(offsetof(CameraCalibrationParam, label) == kText, "label is field 3");
static_assert(offsetof(CameraCalibrationParam, depthLens) == kDepthLens, "depth lens");
static_assert(offsetof(CameraCalibrationParam, rgbLens) == kDepthLens + 52, "colour lens");
static_assert(offsetof(CameraCalibrationParam, depthOffsetF1) == kAfterLenses, "offset F1");
static_assert(offsetof(CameraCalibrationParam, depthOffsetF2) == kAfterLenses + 4, "offset F2");
static_assert(offsetof(CameraCalibrationParam, reserved2) == kAfterLenses + 8, "reserved2");
static_assert(offsetof(CameraCalibrationParam, tableCountF1) == kAfterLenses + 12, "count F1");
static_assert(offsetof(CameraCalibrationParam, tableF1) == kAfterLenses + 16, "table F1");
static_assert(offsetof(CameraCalibrationParam, tableCountF2) == kAfterLenses + 16 + 1024, "");
static_assert(offsetof(CameraCalibrationParam, tableF2) == kAfterLenses + 20 + 1024, "");
constexpr size_t kFppnF1 = kAfterLenses + 20 + 2048;
static_assert(offsetof(CameraCalibrationParam, fppnF1) == kFppnF1, "fppn F1");
static_assert(offsetof(CameraCalibrationParam, fppnF2) == kFppnF1 + 24, "fppn F2");
static_assert(offsetof(CameraCalibrationParam, coefF1) == kFppnF1 + 48, "coef F1");
static_assert(offsetof(CameraCalibrationParam, coefF2) == kFppnF1 + 64, "coef F2");
static_assert(offsetof(CameraCalibrationParam, reserved3) == kFppnF1 + 80, "reserved3");
static_assert(offsetof(CameraCalibrationParam, reserved4) == kFppnF1 + 84, "reserved4");
static_assert(offsetof(CameraCalibrationParam, extrinsics) == kFppnF1 + 132, "extrinsics");
static_assert(offsetof(CameraCalibrationParam, vectorCount) == kFppnF1 + 180, "vector count");
static_assert(offsetof(CameraCalibrationParam, vector) == kFppnF1 + 184, "vector");
static_assert(offsetof(CameraCalibrationParam, tableCount3) == kFppnF1 + 184 + 1024, "");
static_assert(offsetof(CameraCalibrationParam, table3) == kFppnF1 + 188 + 1024, "table3");
static_assert(sizeof(CameraCalibrationParam) == kFppnF1 + 188 + 2048, "nothing after table3");

// The interface has no virtual destructor, so a delete through it does not compile.
static_assert(!std::has_virtual_destructor<Reconstruction>::value, "no virtual destructor");
static_assert(std::is_abstract<Reconstruction>::value, "abstract interface");

// Slot index (0-based) of a virtual function, read from its pointer-to-member as the
// Itanium C++ ABI lays it out: {ptr, adj}; a virtual function stores its byte offset
// into the vtable plus one in ptr (x86-64), or the offset in ptr with the low bit of
// adj set (ARM).
template <typename Pmf>
long SlotOf(Pmf pmf)
{
    struct Repr {
        uintptr_t ptr;
        ptrdiff_t adj;
    } repr;
    static_assert(sizeof(Pmf) == sizeof(Repr), "Itanium pointer-to-member layout");
    std::memcpy(&repr, &pmf, sizeof repr);
#if defined(__arm__) || defined(__aarch64__)
    if ((repr.adj & 1) == 0)
        return -1;
    return static_cast<long>(repr.ptr / sizeof(void*));
#else
    if ((repr.ptr & 1) == 0)
        return -1;
    return static_cast<long>((repr.ptr - 1) / sizeof(void*));
#endif
}

TEST(Abi, SeventeenVirtualOperationsInTheirSlots)
{
    EXPECT_EQ(SlotOf(&Reconstruction::GetAlgorithmVersion), 0);
    EXPECT_EQ(SlotOf(&Reconstruction::SetType), 1);
    EXPECT_EQ(SlotOf(&Reconstruction::Init), 2);
    EXPECT_EQ(SlotOf(&Reconstruction::GetCloudPoint), 3);
    EXPECT_EQ(SlotOf(&Reconstruction::GetIR), 4);
    EXPECT_EQ(SlotOf(&Reconstruction::CalculateDepth), 5);
    EXPECT_EQ(SlotOf(&Reconstruction::DoubleFreqDepth), 6);
    EXPECT_EQ(SlotOf(&Reconstruction::Convert2RGB), 7);
    EXPECT_EQ(SlotOf(&Reconstruction::MapDepthToRGB), 8);
    EXPECT_EQ(SlotOf(&Reconstruction::Pb2Structrue), 9);
    EXPECT_EQ(SlotOf(&Reconstruction::GetCustomDistanceRange), 10);
    EXPECT_EQ(SlotOf(&Reconstruction::SetCustomDistanceRange), 11);
    EXPECT_EQ(SlotOf(&Reconstruction::GetDistanceRange), 12);
    EXPECT_EQ(SlotOf(&Reconstruction::GetColorBar), 13);
    EXPECT_EQ(SlotOf(&Reconstruction::SetFlipMode), 14);
    EXPECT_EQ(SlotOf(&Reconstruction::OpenFilter), 15);
    EXPECT_EQ(SlotOf(&Reconstruction::GetFilterStatu), 16);
}

}  // namespace
