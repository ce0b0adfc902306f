// The processed recording `qvrecon depth --format mcap` writes: the raw captures and
// colour frames copied from the recording converted, and beside each capture its
// depth (16UC1) and IR (mono16) images, its points, and where it has a colour frame
// the registered depth and undistorted colour, with camera infos for both cameras.
#ifndef QVRECON_PROCESSED_RECORDING_H
#define QVRECON_PROCESSED_RECORDING_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <qvreconstruction/recording.h>

#include "output_files.h"
#include "pipeline.h"

namespace qvrecon {

// What the library made of one capture.
struct Products {
    cv::Mat depth;                        // CV_16UC1
    std::vector<uint16_t> ir;             // W x H
    std::vector<float> cloud;             // x, y, z a pixel
    std::optional<Registration> registration;
};

class ProcessedRecording {
public:
    // Writes to an exclusive temporary file beside `path`, put in place by Close().
    ProcessedRecording(const std::string& path, const qvapi::RecordingSetup& setup,
                       const ModuleCalibration& calibration);
    // A capture as recorded (words, time, information, colour frame) and its products.
    void Add(const qvapi::RecordedFrame& frame, StreamKind kind, const Products& products);
    void Close();

private:
    PendingFile pending_;
    std::string path_;
    ModuleCalibration calibration_;
    qvapi::RecordingWriter writer_;
    std::optional<uint64_t> lastColourTime_;
};

}  // namespace qvrecon

#endif
