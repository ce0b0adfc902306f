#include "depth/depth_filter.h"

#include <opencv2/imgproc.hpp>

#include "depth/edge_filter.h"
#include "simd/targets.h"

namespace qvapi {

void FilterDepthFrame(uint16_t* depth, int width, int height)
{
    if (FastPathsEnabled()) {
        MedianBlur3x3InPlace(depth, width, height);
        EdgeFilterFast(depth, width, height);
        return;
    }
    cv::Mat view(height, width, CV_16UC1, depth);
    cv::Mat median(height, width, CV_16UC1, cv::Scalar(0));
    cv::medianBlur(view, median, 3);
    median.copyTo(view);
    EdgeFilterPlain(depth, width, height);
}

}  // namespace qvapi
