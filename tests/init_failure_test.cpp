// Init's failure path: an allocation that fails part-way leaves nothing allocated
// and the lock free, and the next Init works. Array allocations of this test
// program go through the counting operator new[] below, which can be told to fail.
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <thread>

#include <gtest/gtest.h>

#include "reconstruction_impl.h"
#include "sample_calibration.h"

namespace {

std::atomic<long> g_liveArrays{0};
std::atomic<long> g_failAfter{-1};  // fail the allocation after this many more; -1 never

}  // namespace

void* operator new[](std::size_t size)
{
    if (g_failAfter.load() == 0)
        throw std::bad_alloc();
    if (g_failAfter.load() > 0)
        --g_failAfter;
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr)
        throw std::bad_alloc();
    ++g_liveArrays;
    return p;
}

void operator delete[](void* p) noexcept
{
    if (p != nullptr) {
        --g_liveArrays;
        std::free(p);
    }
}

void operator delete[](void* p, std::size_t) noexcept { operator delete[](p); }

namespace {

using namespace qvapi;

TEST(InitFailure, EveryAllocationFailureFreesWhatWasBuiltAndReleasesTheLock)
{
    auto r = std::make_unique<ReconstructionImpl>();
    r->SetType(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    const CameraCalibrationParam first = qvsim::SampleBinnedCalibration();
    const CameraCalibrationParam second = qvsim::SampleCalibration();
    // A first Init and Release let the libraries make their one-time allocations.
    ASSERT_EQ(r->Init(first, second), STATUS_OK);
    r->Release();
    const long baseline = g_liveArrays.load();
    ASSERT_EQ(r->Init(first, second), STATUS_OK);  // a previous state to lose
    const long tables = g_liveArrays.load() - baseline;
    EXPECT_EQ(tables, 16);

    int failures = 0;
    for (long k = 0; k < 40; ++k) {
        g_failAfter = k;
        bool threw = false;
        try {
            r->Init(first, second);
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        g_failAfter = -1;
        if (!threw)
            break;  // every allocation of Init has been failed once
        ++failures;
        EXPECT_FALSE(r->m_initialized);
        EXPECT_EQ(r->m_fppnOffset, nullptr);
        EXPECT_EQ(r->m_rgbRayX, nullptr);
        EXPECT_EQ(g_liveArrays.load(), baseline) << "after failing allocation " << k;
        // The lock was released on the way out.
        std::thread other([] {
            EXPECT_TRUE(ParamMutex().try_lock());
            ParamMutex().unlock();
        });
        other.join();
    }
    EXPECT_EQ(failures, 16);  // one failure per table

    ASSERT_EQ(r->Init(first, second), STATUS_OK);
    EXPECT_TRUE(r->m_initialized);
    EXPECT_EQ(r->m_freqParam[0].rangeMm, 1875);
    EXPECT_EQ(g_liveArrays.load(), baseline + tables);
}

}  // namespace
