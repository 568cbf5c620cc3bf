// One camera frame to a BGRA picture: ours takes a picture from the pool, converts and keeps a reference to the result
// in place of the last one, against the bare calls and against other libraries on the same bytes.

#include <benchmark/benchmark.h>
#include <libyuv.h>
#include <turbojpeg.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/video/bench_frames.h"
#include "platform/frame_converter.h"

#ifdef MIRN_PEER_SWSCALE
extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}
#endif
#ifdef MIRN_PEER_OPENCV
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#endif
#ifdef MIRN_PEER_GSTREAMER
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>
#endif

namespace mirn::bench {
namespace {

using Conversion = std::function<void()>;

struct Source {
  const char* name;
  FourCharCode pixelFormat;
  const std::vector<uint8_t> CameraFrames::*bytes;
};
constexpr Source kYuyv = {"YUYV", kCaptureYuyv, &CameraFrames::yuyv};
constexpr Source kNv12 = {"NV12", kCaptureNv12, &CameraFrames::nv12};
constexpr Source kMjpeg = {"MJPEG", kCaptureMjpg, &CameraFrames::mjpeg};

// What the capture thread does with a dequeued buffer: a picture of the pool, the conversion, the reference handed on.
Conversion ours(const CameraFrames& frames, const Source& source, YuvMatrix matrix) {
  struct State {
    explicit State(const CameraFrames& of)
        : pool(static_cast<size_t>(of.width), static_cast<size_t>(of.height), kPixelFormatBGRA, 8) {}
    PixelBufferPool pool;
    FrameConverter converter;
    PixelBufferRef shown;
    FrameLayout layout;
  };
  auto state = std::make_shared<State>(frames);
  state->layout = {source.pixelFormat, frames.width, frames.height, 0, matrix, YuvRange::kVideo};
  return [state, &bytes = frames.*source.bytes] {
    PixelBufferRef picture = state->pool.acquire();
    if (state->converter.convert(bytes.data(), bytes.size(), state->layout, *picture) != ConvertResult::kConverted) {
      std::abort();
    }
    state->shown = std::move(picture);
  };
}

// Two buffers in turn, as with ours: writing to one that is still in the cache would be another task.
struct Buffers {
  explicit Buffers(const CameraFrames& frames)
      : stride(frames.width * 4),
        pool(static_cast<size_t>(frames.width), static_cast<size_t>(frames.height), kPixelFormatBGRA, 2) {
    for (PixelBufferRef& picture : pictures) {
      picture = pool.acquire();
      picture->lockBaseAddress(kPixelBufferLockForWriting);
    }
  }
  uint8_t* next() { return pictures[turn ^= 1]->baseAddress(); }

  int stride;
  PixelBufferPool pool;
  PixelBufferRef pictures[2];
  int turn = 0;
};

Conversion bareYuyv(const CameraFrames& frames) {
  auto buffers = std::make_shared<Buffers>(frames);
  return [buffers, &frames] {
    libyuv::YUY2ToARGB(frames.yuyv.data(), frames.width * 2, buffers->next(), buffers->stride, frames.width,
                       frames.height);
  };
}

Conversion bareNv12(const CameraFrames& frames) {
  auto buffers = std::make_shared<Buffers>(frames);
  return [buffers, &frames] {
    const uint8_t* chroma = frames.nv12.data() + static_cast<size_t>(frames.width) * static_cast<size_t>(frames.height);
    libyuv::NV12ToARGB(frames.nv12.data(), frames.width, chroma, frames.width, buffers->next(), buffers->stride,
                       frames.width, frames.height);
  };
}

Conversion bareTurboJpeg(const CameraFrames& frames) {
  auto buffers = std::make_shared<Buffers>(frames);
  std::shared_ptr<void> decoder(tjInitDecompress(), tjDestroy);
  return [buffers, decoder, &frames] {
    tjDecompress2(decoder.get(), frames.mjpeg.data(), frames.mjpeg.size(), buffers->next(), frames.width,
                  buffers->stride, frames.height, TJPF_BGRA, TJFLAG_FASTUPSAMPLE);
  };
}

#ifdef MIRN_PEER_SWSCALE
Conversion swscale(const CameraFrames& frames, const Source& source) {
  const bool packed = source.pixelFormat == kCaptureYuyv;
  std::shared_ptr<SwsContext> context(
      sws_getContext(frames.width, frames.height, packed ? AV_PIX_FMT_YUYV422 : AV_PIX_FMT_NV12, frames.width,
                     frames.height, AV_PIX_FMT_BGRA, SWS_POINT, nullptr, nullptr, nullptr),
      sws_freeContext);
  auto buffers = std::make_shared<Buffers>(frames);
  return [=, &frames] {
    const uint8_t* base = (frames.*source.bytes).data();
    const size_t luma = static_cast<size_t>(frames.width) * static_cast<size_t>(frames.height);
    const uint8_t* planes[4] = {base, packed ? nullptr : base + luma, nullptr, nullptr};
    const int strides[4] = {packed ? frames.width * 2 : frames.width, packed ? 0 : frames.width, 0, 0};
    uint8_t* out[4] = {buffers->next(), nullptr, nullptr, nullptr};
    const int outStrides[4] = {buffers->stride, 0, 0, 0};
    sws_scale(context.get(), planes, strides, 0, frames.height, out, outStrides);
  };
}
#endif

#ifdef MIRN_PEER_OPENCV
Conversion openCv(const CameraFrames& frames, const Source& source) {
  auto buffers = std::make_shared<Buffers>(frames);
  auto* bytes = const_cast<uint8_t*>((frames.*source.bytes).data());
  const int size = static_cast<int>((frames.*source.bytes).size());
  const auto out = [buffers, &frames] {
    return cv::Mat(frames.height, frames.width, CV_8UC4, buffers->next(), static_cast<size_t>(buffers->stride));
  };
  if (source.pixelFormat == kCaptureMjpg) {
    return [=] {
      const cv::Mat decoded = cv::imdecode(cv::Mat(1, size, CV_8UC1, bytes), cv::IMREAD_COLOR);
      cv::cvtColor(decoded, out(), cv::COLOR_BGR2BGRA);
    };
  }
  if (source.pixelFormat == kCaptureYuyv) {
    return [=, &frames] {
      cv::cvtColor(cv::Mat(frames.height, frames.width, CV_8UC2, bytes), out(), cv::COLOR_YUV2BGRA_YUYV);
    };
  }
  return [=, &frames] {
    cv::cvtColor(cv::Mat(frames.height * 3 / 2, frames.width, CV_8UC1, bytes), out(), cv::COLOR_YUV2BGRA_NV12);
  };
}
#endif

#ifdef MIRN_PEER_GSTREAMER
Conversion gstConverter(const CameraFrames& frames, const Source& source) {
  struct State {
    GstVideoInfo from{};
    GstVideoInfo to{};
    GstBuffer* in = nullptr;
    GstBuffer* out = nullptr;
    GstVideoFrame inFrame{};
    GstVideoFrame outFrame{};
    GstVideoConverter* converter = nullptr;
    ~State() {
      gst_video_converter_free(converter);
      gst_video_frame_unmap(&inFrame);
      gst_video_frame_unmap(&outFrame);
      gst_buffer_unref(in);
      gst_buffer_unref(out);
    }
  };
  gst_init(nullptr, nullptr);
  auto state = std::make_shared<State>();
  const auto width = static_cast<guint>(frames.width);
  const auto height = static_cast<guint>(frames.height);
  gst_video_info_set_format(
      &state->from, source.pixelFormat == kCaptureYuyv ? GST_VIDEO_FORMAT_YUY2 : GST_VIDEO_FORMAT_NV12, width, height);
  gst_video_info_set_format(&state->to, GST_VIDEO_FORMAT_BGRA, width, height);
  const std::vector<uint8_t>& bytes = frames.*source.bytes;
  state->in = gst_buffer_new_allocate(nullptr, state->from.size, nullptr);
  gst_buffer_fill(state->in, 0, bytes.data(), bytes.size());
  state->out = gst_buffer_new_allocate(nullptr, state->to.size, nullptr);
  gst_video_frame_map(&state->inFrame, &state->from, state->in, GST_MAP_READ);
  gst_video_frame_map(&state->outFrame, &state->to, state->out, GST_MAP_WRITE);
  state->converter = gst_video_converter_new(&state->from, &state->to, nullptr);
  return [state] { gst_video_converter_frame(state->converter, &state->inFrame, &state->outFrame); };
}

// The decoder is an element: frames go through a pipeline of its own. Null when the element isn't installed and rows
// may be left out.
Conversion gstDecoder(const CameraFrames& frames) {
  struct State {
    GstElement* pipeline = nullptr;
    GstElement* source = nullptr;
    GstElement* sink = nullptr;
    ~State() {
      gst_element_set_state(pipeline, GST_STATE_NULL);
      gst_object_unref(source);
      gst_object_unref(sink);
      gst_object_unref(pipeline);
    }
  };
  gst_init(nullptr, nullptr);
  GstElementFactory* factory = gst_element_factory_find("jpegdec");
  if (factory == nullptr) {
    std::fprintf(stderr, "GStreamer has no jpegdec: install the package gstreamer1.0-plugins-good\n");
#ifdef MIRN_ALL_PEERS
    std::exit(1);
#else
    return nullptr;
#endif
  }
  gst_object_unref(factory);
  const std::string text =
      "appsrc name=in format=time is-live=false caps=image/jpeg,framerate=0/1,width=" + std::to_string(frames.width) +
      ",height=" + std::to_string(frames.height) +
      " ! jpegdec ! videoconvert n-threads=1 ! video/x-raw,format=BGRA ! appsink name=out sync=false";
  GstElement* pipeline = gst_parse_launch(text.c_str(), nullptr);
  if (pipeline == nullptr) {
    std::fprintf(stderr, "GStreamer can't build the pipeline %s\n", text.c_str());
    std::exit(1);
  }
  auto state = std::make_shared<State>();
  state->pipeline = pipeline;
  state->source = gst_bin_get_by_name(GST_BIN(pipeline), "in");
  state->sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  return [state, &frames] {
    GstBuffer* buffer = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, const_cast<uint8_t*>(frames.mjpeg.data()),
                                                    frames.mjpeg.size(), 0, frames.mjpeg.size(), nullptr, nullptr);
    gst_app_src_push_buffer(GST_APP_SRC(state->source), buffer);
    // A pipeline that can't decode never answers: the measurement ends then instead of waiting.
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(state->sink), 10 * GST_SECOND);
    if (sample == nullptr) {
      std::fprintf(stderr, "GStreamer's pipeline gave no picture\n");
      std::exit(1);
    }
    gst_sample_unref(sample);
  };
}
#endif

void add(const std::string& name, const Conversion& conversion) {
  if (!conversion) {
    return;
  }
  benchmark::RegisterBenchmark(name.c_str(), [conversion](benchmark::State& state) {
    conversion();  // tables and pages are made once, outside the measurement
    for (auto _ : state) {
      conversion();
    }
  })->Unit(benchmark::kMicrosecond);
}

void addRaw(const CameraFrames& frames, const std::string& picture, const Source& source) {
  const std::string what = std::string(source.name) + " to BGRA " + picture;
  add(what + "/ours", ours(frames, source, YuvMatrix::kBt601));
  add(what + "/peer:libyuv", source.pixelFormat == kCaptureYuyv ? bareYuyv(frames) : bareNv12(frames));
  // The rows of our own, for BT.709, against the same bare call.
  const std::string other = std::string(source.name) + " BT.709 to BGRA " + picture;
  add(other + "/ours", ours(frames, source, YuvMatrix::kBt709));
  add(other + "/peer:libyuv BT.601", source.pixelFormat == kCaptureYuyv ? bareYuyv(frames) : bareNv12(frames));
#ifdef MIRN_PEER_SWSCALE
  add(what + "/peer:libswscale", swscale(frames, source));
#endif
#ifdef MIRN_PEER_OPENCV
  add(what + "/peer:OpenCV", openCv(frames, source));
#endif
#ifdef MIRN_PEER_GSTREAMER
  add(what + "/peer:GStreamer", gstConverter(frames, source));
#endif
}

void addAll(int width, int height, Content content) {
  const CameraFrames& frames = cameraFrames(width, height, content);
  const std::string picture = std::to_string(height) + "p" + (content == Content::kDesktop ? " desktop" : " noise");
  addRaw(frames, picture, kYuyv);
  addRaw(frames, picture, kNv12);
  const std::string what = "MJPEG to BGRA " + picture;
  add(what + "/ours", ours(frames, kMjpeg, YuvMatrix::kBt601));
  add(what + "/peer:TurboJPEG", bareTurboJpeg(frames));
#ifdef MIRN_PEER_OPENCV
  add(what + "/peer:OpenCV", openCv(frames, kMjpeg));
#endif
#ifdef MIRN_PEER_GSTREAMER
  add(what + "/peer:GStreamer", gstDecoder(frames));
#endif
}

}  // namespace
}  // namespace mirn::bench

int main(int argc, char** argv) {
#ifdef MIRN_PEER_OPENCV
  cv::setNumThreads(1);  // one frame, one thread, for everybody
#endif
  for (const auto content : {mirn::bench::Content::kDesktop, mirn::bench::Content::kNoise}) {
    mirn::bench::addAll(1920, 1080, content);
    mirn::bench::addAll(1280, 720, content);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
