#include "platform/linux/video/X264CompressionSession.h"

#include <x264.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/linux/video/EncodedBytes.h"
#include "platform/linux/video/VideoStatus.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr int kMacroblockSize = 16;
constexpr float kMotionAllowance = 4.0F;  // in quantizer steps

// A change of at most an eighth of the picture is coded alone, since coding what is still to be sharpened
// along with it would make it wait twice as long. What changes all the time lets it in at every fourth
// picture.
constexpr std::ptrdiff_t kSmallChange = 8;
constexpr int kMostPostponements = 3;
constexpr float kCoarsest = 51.0F;  // quantizer steps: x264 leaves an unchanged block as it is

void logMessage(void* /*context*/, int level, const char* format, va_list arguments) {
  std::array<char, 512> text{};
  const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
  if (length <= 0) return;
  std::string message = "x264: ";
  message += text.data();
  while (message.back() == '\n') message.pop_back();
  constexpr Logger kLog("Encoder");
  if (level <= X264_LOG_ERROR) {
    kLog.error(message);
  } else {
    kLog.debug(message);
  }
}

}  // namespace

X264CompressionSession::X264CompressionSession(CompressionSettings settings)
    : SoftwareCompressionSession(settings),
      macroblockColumns_((settings.width + kMacroblockSize - 1) / kMacroblockSize),
      macroblockRows_((settings.height + kMacroblockSize - 1) / kMacroblockSize) {}

X264CompressionSession::~X264CompressionSession() {
  close();
}

void X264CompressionSession::configure() {
  const CompressionSettings& wanted = settings();
  x264_param_t& p = *parameters_;

  p.i_width = wanted.width;
  p.i_height = wanted.height;
  p.i_csp = X264_CSP_NV12;
  p.i_threads = 1;  // a second thread gains nothing at these sizes and raises the worst case
  p.b_sliced_threads = 0;
  p.pf_log = logMessage;
  p.i_log_level = X264_LOG_WARNING;

  // A constant frame rate, which sets what the level promises. With real times x264 would hold each frame
  // back until it knows the next one's; real time is kept by the rate budget and the keyframe schedule.
  p.b_vfr_input = 0;
  p.i_fps_num = static_cast<std::uint32_t>(wanted.expectedFrameRate);
  p.i_fps_den = 1;

  p.b_annexb = 0;
  p.b_repeat_headers = 0;
  p.b_aud = 0;
  p.i_nal_hrd = X264_NAL_HRD_NONE;
  p.vui.b_fullrange = 0;
  p.vui.i_colorprim = 1;  // ITU-R BT.709, Table E-3 and following of ITU-T H.264
  p.vui.i_transfer = 1;
  p.vui.i_colmatrix = 1;

  p.i_frame_reference = 1;
  p.i_bframe = 0;
  p.i_keyint_max = X264_KEYINT_MAX_INFINITE;  // the keyframe schedule decides
  p.i_scenecut_threshold = 0;

  // Small blocks pay on keyframes. In the other pictures they make a new page wait half as long again.
  p.analyse.inter = 0;
  p.analyse.intra = X264_ANALYSE_I4x4;
  p.analyse.b_mb_info = 1;

  // A still picture ends at the least quantizer and stays there, so that it costs nothing more. What moves
  // much starts nearer to what the rate allows, which spreads the bits evenly over the picture.
  const double quantizer = wanted.quantizer();
  p.rc.i_rc_method = X264_RC_CRF;
  p.rc.i_qp_min = static_cast<int>(quantizer);
  p.rc.f_rf_constant = static_cast<float>(quantizer) + kMotionAllowance;
  p.rc.f_qcompress = 0.8F;
  p.rc.f_ip_factor = 1.0F;
  p.rc.i_lookahead = 0;
  p.rc.b_mb_tree = 0;
  p.rc.i_vbv_max_bitrate = kilobits(static_cast<double>(wanted.sustainedBitRate()));
  p.rc.i_vbv_buffer_size = kilobits(static_cast<double>(wanted.burstBits()));
  p.rc.f_vbv_buffer_init = static_cast<float>(kInitialFill);
}

MediaStatus X264CompressionSession::open(std::vector<Bytes>& parameterSets) {
  parameters_ = std::make_unique<x264_param_t>();
  if (x264_param_default_preset(parameters_.get(), "superfast", "zerolatency") != 0) {
    return kVideoEncoderMalfunction;
  }
  configure();
  if (x264_param_apply_profile(parameters_.get(), "baseline") != 0) return kVideoEncoderMalfunction;
  encoder_ = x264_encoder_open(parameters_.get());
  if (encoder_ == nullptr) return kVideoEncoderMalfunction;
  x264_encoder_parameters(encoder_, parameters_.get());
  if (const MediaStatus status = collectParameterSets(parameterSets); status != 0) {
    close();
    return status;
  }
  return 0;
}

MediaStatus X264CompressionSession::collectParameterSets(std::vector<Bytes>& parameterSets) {
  x264_nal_t* units = nullptr;
  int count = 0;
  if (x264_encoder_headers(encoder_, &units, &count) < 0) return kVideoEncoderMalfunction;
  for (int index = 0; index < count; ++index) {
    const x264_nal_t& unit = units[index];
    if (unit.i_type != NAL_SPS && unit.i_type != NAL_PPS) continue;
    parameterSets.emplace_back(unit.p_payload + ParameterSetDescription::kNALHeaderLength,
                               unit.p_payload + unit.i_payload);
  }
  return parameterSets.size() == 2 ? 0 : kVideoEncoderMalfunction;
}

SoftwareCompressionSession::Encoded X264CompressionSession::encodePicture(const Picture& picture) {
  if (parameters_->rc.i_vbv_max_bitrate != picture.creditKilobitsPerSecond) {
    parameters_->rc.i_vbv_max_bitrate = picture.creditKilobitsPerSecond;
    x264_encoder_reconfig(encoder_, parameters_.get());
  }

  x264_picture_t input;
  x264_picture_init(&input);
  input.i_type = picture.isKeyframe ? X264_TYPE_IDR : X264_TYPE_P;
  input.i_pts = frameNumber_++;
  input.img.i_csp = X264_CSP_NV12;
  input.img.i_plane = 2;
  for (std::size_t plane = 0; plane < 2; ++plane) {
    input.img.plane[plane] = picture.image.plane(plane).data;  // only read
    input.img.i_stride[plane] = static_cast<int>(picture.image.plane(plane).stride);
  }
  if (picture.changedSinceLast != nullptr) {
    markChanges(*picture.changedSinceLast);
    input.prop.mb_info = macroblockInfo_.data();
    if (!picture.isKeyframe && postponesSharpening()) input.prop.quant_offsets = sharpeningOffsets_.data();
  }

  x264_picture_t output;
  x264_nal_t* units = nullptr;
  int count = 0;
  const int size = x264_encoder_encode(encoder_, &units, &count, &input, &output);
  Encoded encoded;
  if (size < 0) {
    encoded.status = kVideoEncoderMalfunction;
    return encoded;
  }
  // The payloads of all units of a picture follow each other in memory.
  if (size > 0) encoded.units = ByteView(units[0].p_payload, static_cast<std::size_t>(size));
  encoded.isKeyframe = size > 0 && output.b_keyframe != 0;
  return encoded;
}

/// Whether what has not changed waits for a later picture to be sharpened; the offsets then say so to x264.
bool X264CompressionSession::postponesSharpening() {
  const auto changed = std::count(macroblockInfo_.begin(), macroblockInfo_.end(), std::uint8_t{0});
  const bool isSmall =
      changed > 0 && changed * kSmallChange <= static_cast<std::ptrdiff_t>(macroblockInfo_.size());
  if (!isSmall || postponements_ == kMostPostponements) {
    postponements_ = 0;
    return false;
  }
  ++postponements_;
  sharpeningOffsets_.assign(macroblockInfo_.size(), 0.0F);
  for (std::size_t index = 0; index < macroblockInfo_.size(); ++index) {
    if (macroblockInfo_[index] != 0) sharpeningOffsets_[index] = kCoarsest;
  }
  return true;
}

void X264CompressionSession::markChanges(const std::vector<PixelRect>& changed) {
  macroblockInfo_.assign(
      static_cast<std::size_t>(macroblockColumns_) * static_cast<std::size_t>(macroblockRows_),
      X264_MBINFO_CONSTANT);
  for (const PixelRect& rect : changed) {
    if (rect.width <= 0 || rect.height <= 0) continue;
    const auto first = [](int position) { return std::max(position, 0) / kMacroblockSize; };
    const auto last = [](int position, int length, int blocks) {
      return std::min((position + length - 1) / kMacroblockSize, blocks - 1);
    };
    const int right = last(rect.x, rect.width, macroblockColumns_);
    const int bottom = last(rect.y, rect.height, macroblockRows_);
    for (int row = first(rect.y); row <= bottom; ++row) {
      const auto begin = macroblockInfo_.begin() + std::ptrdiff_t{row} * macroblockColumns_;
      for (int column = first(rect.x); column <= right; ++column) begin[column] = 0;
    }
  }
}

void X264CompressionSession::close() {
  if (encoder_ != nullptr) x264_encoder_close(encoder_);
  encoder_ = nullptr;
}

}  // namespace kestrune::linux_platform
