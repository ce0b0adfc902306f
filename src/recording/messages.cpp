#include "recording/messages.h"

#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>

namespace qvrec {
namespace {

constexpr bool kLittleEndianHost = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
constexpr size_t kEncapsulationSize = 4;
constexpr uint8_t kEncapsulation[kEncapsulationSize] = {0x00, 0x01, 0x00, 0x00};

template <typename T>
T ByteSwap(T v) {
    static_assert(std::is_trivially_copyable<T>::value, "plain values only");
    uint8_t b[sizeof(T)];
    std::memcpy(b, &v, sizeof(T));
    for (size_t i = 0; i < sizeof(T) / 2; ++i) std::swap(b[i], b[sizeof(T) - 1 - i]);
    std::memcpy(&v, b, sizeof(T));
    return v;
}

// Both writers below take the same calls, so one Serialize per message gives the
// encoder and the size: Counter only advances a position, Appender writes bytes.
// Positions count from the end of the encapsulation header.
class Counter {
public:
    template <typename T>
    void Put(T) { Align(sizeof(T)); pos_ += sizeof(T); }
    template <typename T>
    void PutArray(const T*, size_t n) {
        if (n == 0) return;
        Align(sizeof(T));
        pos_ += n * sizeof(T);
    }
    size_t size() const { return kEncapsulationSize + pos_; }

private:
    void Align(size_t a) { pos_ += (a - pos_ % a) % a; }
    size_t pos_ = 0;
};

class Appender {
public:
    explicit Appender(std::vector<uint8_t>* out) : out_(out) {
        out_->insert(out_->end(), kEncapsulation, kEncapsulation + kEncapsulationSize);
        base_ = out_->size();
    }
    template <typename T>
    void Put(T v) {
        Align(sizeof(T));
        if (!kLittleEndianHost) v = ByteSwap(v);
        uint8_t b[sizeof(T)];
        std::memcpy(b, &v, sizeof(T));
        out_->insert(out_->end(), b, b + sizeof(T));
    }
    template <typename T>
    void PutArray(const T* p, size_t n) {
        if (n == 0) return;
        Align(sizeof(T));
        if (kLittleEndianHost || sizeof(T) == 1) {
            const uint8_t* b = reinterpret_cast<const uint8_t*>(p);
            out_->insert(out_->end(), b, b + n * sizeof(T));
        } else {
            for (size_t i = 0; i < n; ++i) Put(p[i]);
        }
    }

private:
    void Align(size_t a) {
        const size_t pos = out_->size() - base_;
        out_->insert(out_->end(), (a - pos % a) % a, uint8_t{0});
    }
    std::vector<uint8_t>* out_;
    size_t base_ = 0;
};

// Lengths beyond uint32 cannot be expressed in CDR; callers keep to the sizes of
// images and captures, far below.
uint32_t Count(size_t n) { return static_cast<uint32_t>(n); }

template <typename W>
void PutString(W& w, const std::string& s) {
    w.Put(Count(s.size() + 1));
    w.PutArray(s.data(), s.size());
    w.Put(char{0});
}

template <typename W>
void PutHeader(W& w, const Header& h) {
    w.Put(h.stamp.sec);
    w.Put(h.stamp.nanosec);
    PutString(w, h.frame_id);
}

template <typename W>
void Serialize(W& w, const ImageView& m) {
    PutHeader(w, m.header);
    w.Put(m.height);
    w.Put(m.width);
    PutString(w, m.encoding);
    w.Put(m.is_bigendian);
    w.Put(m.step);
    w.Put(Count(m.data_size));
    w.PutArray(m.data, m.data_size);
}

template <typename W>
void Serialize(W& w, const CameraInfo& m) {
    PutHeader(w, m.header);
    w.Put(m.height);
    w.Put(m.width);
    PutString(w, m.distortion_model);
    w.Put(Count(m.d.size()));
    w.PutArray(m.d.data(), m.d.size());
    w.PutArray(m.k.data(), m.k.size());
    w.PutArray(m.r.data(), m.r.size());
    w.PutArray(m.p.data(), m.p.size());
    w.Put(m.binning_x);
    w.Put(m.binning_y);
    w.Put(m.roi.x_offset);
    w.Put(m.roi.y_offset);
    w.Put(m.roi.height);
    w.Put(m.roi.width);
    w.Put(static_cast<uint8_t>(m.roi.do_rectify));
}

template <typename W>
void Serialize(W& w, const PointCloud2View& m) {
    PutHeader(w, m.header);
    w.Put(m.height);
    w.Put(m.width);
    w.Put(Count(m.fields.size()));
    for (const PointField& f : m.fields) {
        PutString(w, f.name);
        w.Put(f.offset);
        w.Put(f.datatype);
        w.Put(f.count);
    }
    w.Put(static_cast<uint8_t>(m.is_bigendian));
    w.Put(m.point_step);
    w.Put(m.row_step);
    w.Put(Count(m.data_size));
    w.PutArray(m.data, m.data_size);
    w.Put(static_cast<uint8_t>(m.is_dense));
}

template <typename W>
void Serialize(W& w, const RawCaptureView& m) {
    PutHeader(w, m.header);
    w.Put(m.stream_type);
    w.Put(m.device_type);
    w.Put(m.width);
    w.Put(m.height);
    w.Put(Count(m.word_count));
    w.PutArray(m.words, m.word_count);
}

template <typename W>
void Serialize(W& w, const FrameInfo& m) {
    PutHeader(w, m.header);
    w.Put(m.sequence);
    w.Put(m.capture_time_ns);
    w.Put(m.temperature_code);
    w.Put(m.temperature_celsius);
    w.Put(m.stream_type);
    w.Put(m.frames_dropped);
}

template <typename M>
size_t SizeOf(const M& m) {
    Counter c;
    Serialize(c, m);
    return c.size();
}

template <typename M>
void Append(const M& m, std::vector<uint8_t>* out) {
    out->reserve(out->size() + SizeOf(m));
    Appender a(out);
    Serialize(a, m);
}

// Reads a CDR stream; the first failure is kept and every later read fails too, so a
// message's fields can be read in a row and checked once at the end.
class Reader {
public:
    Reader(const uint8_t* data, size_t size, const char* type)
        : data_(data), size_(size), type_(type) {
        if (data == nullptr || size < kEncapsulationSize) {
            Fail("shorter than the 4-byte encapsulation header");
        } else if (data[0] != 0x00 || data[1] != 0x01) {
            Fail(data[0] == 0x00 && data[1] == 0x00
                     ? "big-endian CDR is not supported"
                     : "not plain little-endian CDR (encapsulation " + Hex(data[0]) + " " +
                           Hex(data[1]) + ")");
        } else {
            pos_ = kEncapsulationSize;
        }
    }

    template <typename T>
    void Get(T* v, const char* field) {
        if (!Align(sizeof(T), field) || !Need(sizeof(T), 1, field)) return;
        std::memcpy(v, data_ + pos_, sizeof(T));
        if (!kLittleEndianHost) *v = ByteSwap(*v);
        pos_ += sizeof(T);
    }
    void Get(bool* v, const char* field) {
        uint8_t b = 0;
        Get(&b, field);
        *v = b != 0;
    }
    template <typename T>
    void GetArray(T* p, size_t n, const char* field) {
        if (n == 0 || !Align(sizeof(T), field) || !Need(sizeof(T), n, field)) return;
        std::memcpy(p, data_ + pos_, n * sizeof(T));
        if (!kLittleEndianHost && sizeof(T) > 1) {
            for (size_t i = 0; i < n; ++i) p[i] = ByteSwap(p[i]);
        }
        pos_ += n * sizeof(T);
    }
    // A sequence's count, refused unless count elements of at least min_element_size
    // bytes each fit in what remains: nothing is allocated for bytes the message lacks.
    bool GetCount(uint32_t* n, size_t min_element_size, const char* field) {
        *n = 0;
        Get(n, field);
        if (failed()) return false;
        const size_t left = size_ - pos_;
        if (*n > left / min_element_size) {
            Fail("'" + std::string(field) + "' has " + std::to_string(*n) +
                 " elements but only " + std::to_string(left) + " bytes remain");
            *n = 0;
            return false;
        }
        return true;
    }
    template <typename T>
    void GetSequence(std::vector<T>* v, const char* field) {
        uint32_t n = 0;
        if (!GetCount(&n, sizeof(T), field)) {
            v->clear();
            return;
        }
        v->resize(n);
        GetArray(v->data(), n, field);
    }
    void GetString(std::string* s, const char* field) {
        uint32_t n = 0;
        s->clear();
        if (!GetCount(&n, 1, field) || n == 0) return;
        // The length counts the terminating NUL; a sender that leaves it out is read
        // as it wrote.
        const char* p = reinterpret_cast<const char*>(data_ + pos_);
        s->assign(p, p[n - 1] == '\0' ? n - 1 : n);
        pos_ += n;
    }
    void GetHeader(Header* h) {
        Get(&h->stamp.sec, "header.stamp.sec");
        Get(&h->stamp.nanosec, "header.stamp.nanosec");
        GetString(&h->frame_id, "header.frame_id");
    }

    bool failed() const { return !error_.empty(); }
    bool Finish(std::string* error) const {
        if (failed() && error != nullptr) *error = error_;
        return !failed();
    }

private:
    static std::string Hex(uint8_t b) {
        const char* digits = "0123456789abcdef";
        return {digits[b >> 4], digits[b & 15]};
    }
    void Fail(const std::string& what) {
        if (!failed()) error_ = std::string(type_) + ": " + what;
    }
    bool Align(size_t a, const char* field) {
        if (failed()) return false;
        const size_t pad = (a - (pos_ - kEncapsulationSize) % a) % a;
        if (pad > size_ - pos_) {
            Fail("'" + std::string(field) + "' starts past the end of the " +
                 std::to_string(size_) + "-byte message");
            return false;
        }
        pos_ += pad;
        return true;
    }
    bool Need(size_t element_size, size_t n, const char* field) {
        if (n > (size_ - pos_) / element_size) {
            Fail("'" + std::string(field) + "' runs past the end of the " +
                 std::to_string(size_) + "-byte message");
            return false;
        }
        return true;
    }

    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
    const char* type_;
    std::string error_;
};

}  // namespace

Time Time::FromNanoseconds(uint64_t ns) {
    constexpr uint64_t kBillion = 1000000000u;
    Time t;
    const uint64_t sec = ns / kBillion;
    t.sec = sec > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())
                ? std::numeric_limits<int32_t>::max()
                : static_cast<int32_t>(sec);
    t.nanosec = static_cast<uint32_t>(ns % kBillion);
    return t;
}

uint64_t Time::ToNanoseconds() const {
    if (sec < 0) return 0;
    return static_cast<uint64_t>(sec) * 1000000000u + nanosec;
}

ImageView Image::View() const {
    return {header, height, width, encoding, is_bigendian, step, data.data(), data.size()};
}

PointCloud2View PointCloud2::View() const {
    return {header,   height,      width, fields, is_bigendian, point_step,
            row_step, data.data(), data.size(), is_dense};
}

RawCaptureView RawCapture::View() const {
    return {header, stream_type, device_type, width, height, words.data(), words.size()};
}

std::vector<PointField> XyzFloat32Fields() {
    return {{"x", 0, PointField::FLOAT32, 1},
            {"y", 4, PointField::FLOAT32, 1},
            {"z", 8, PointField::FLOAT32, 1}};
}

size_t EncodedSize(const ImageView& m) { return SizeOf(m); }
size_t EncodedSize(const CameraInfo& m) { return SizeOf(m); }
size_t EncodedSize(const PointCloud2View& m) { return SizeOf(m); }
size_t EncodedSize(const RawCaptureView& m) { return SizeOf(m); }
size_t EncodedSize(const FrameInfo& m) { return SizeOf(m); }

void Encode(const ImageView& m, std::vector<uint8_t>* out) { Append(m, out); }
void Encode(const Image& m, std::vector<uint8_t>* out) { Append(m.View(), out); }
void Encode(const CameraInfo& m, std::vector<uint8_t>* out) { Append(m, out); }
void Encode(const PointCloud2View& m, std::vector<uint8_t>* out) { Append(m, out); }
void Encode(const PointCloud2& m, std::vector<uint8_t>* out) { Append(m.View(), out); }
void Encode(const RawCaptureView& m, std::vector<uint8_t>* out) { Append(m, out); }
void Encode(const RawCapture& m, std::vector<uint8_t>* out) { Append(m.View(), out); }
void Encode(const FrameInfo& m, std::vector<uint8_t>* out) { Append(m, out); }

bool Decode(const uint8_t* data, size_t size, Image* out, std::string* error) {
    Reader r(data, size, Image::kTypeName);
    r.GetHeader(&out->header);
    r.Get(&out->height, "height");
    r.Get(&out->width, "width");
    r.GetString(&out->encoding, "encoding");
    r.Get(&out->is_bigendian, "is_bigendian");
    r.Get(&out->step, "step");
    r.GetSequence(&out->data, "data");
    return r.Finish(error);
}

bool Decode(const uint8_t* data, size_t size, CameraInfo* out, std::string* error) {
    Reader r(data, size, CameraInfo::kTypeName);
    r.GetHeader(&out->header);
    r.Get(&out->height, "height");
    r.Get(&out->width, "width");
    r.GetString(&out->distortion_model, "distortion_model");
    r.GetSequence(&out->d, "d");
    r.GetArray(out->k.data(), out->k.size(), "k");
    r.GetArray(out->r.data(), out->r.size(), "r");
    r.GetArray(out->p.data(), out->p.size(), "p");
    r.Get(&out->binning_x, "binning_x");
    r.Get(&out->binning_y, "binning_y");
    r.Get(&out->roi.x_offset, "roi.x_offset");
    r.Get(&out->roi.y_offset, "roi.y_offset");
    r.Get(&out->roi.height, "roi.height");
    r.Get(&out->roi.width, "roi.width");
    r.Get(&out->roi.do_rectify, "roi.do_rectify");
    return r.Finish(error);
}

bool Decode(const uint8_t* data, size_t size, PointCloud2* out, std::string* error) {
    Reader r(data, size, PointCloud2::kTypeName);
    r.GetHeader(&out->header);
    r.Get(&out->height, "height");
    r.Get(&out->width, "width");
    // A field takes at least 13 bytes: the name's length, offset, datatype and count.
    constexpr size_t kMinFieldSize = 13;
    uint32_t n = 0;
    out->fields.clear();
    if (r.GetCount(&n, kMinFieldSize, "fields")) {
        out->fields.resize(n);
        for (PointField& f : out->fields) {
            r.GetString(&f.name, "fields.name");
            r.Get(&f.offset, "fields.offset");
            r.Get(&f.datatype, "fields.datatype");
            r.Get(&f.count, "fields.count");
        }
    }
    r.Get(&out->is_bigendian, "is_bigendian");
    r.Get(&out->point_step, "point_step");
    r.Get(&out->row_step, "row_step");
    r.GetSequence(&out->data, "data");
    r.Get(&out->is_dense, "is_dense");
    return r.Finish(error);
}

bool Decode(const uint8_t* data, size_t size, RawCapture* out, std::string* error) {
    Reader r(data, size, RawCapture::kTypeName);
    r.GetHeader(&out->header);
    r.Get(&out->stream_type, "stream_type");
    r.Get(&out->device_type, "device_type");
    r.Get(&out->width, "width");
    r.Get(&out->height, "height");
    r.GetSequence(&out->words, "words");
    return r.Finish(error);
}

bool Decode(const uint8_t* data, size_t size, FrameInfo* out, std::string* error) {
    Reader r(data, size, FrameInfo::kTypeName);
    r.GetHeader(&out->header);
    r.Get(&out->sequence, "sequence");
    r.Get(&out->capture_time_ns, "capture_time_ns");
    r.Get(&out->temperature_code, "temperature_code");
    r.Get(&out->temperature_celsius, "temperature_celsius");
    r.Get(&out->stream_type, "stream_type");
    r.Get(&out->frames_dropped, "frames_dropped");
    return r.Finish(error);
}

}  // namespace qvrec
