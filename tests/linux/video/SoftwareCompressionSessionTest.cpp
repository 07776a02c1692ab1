// Real encoders, judged by an independent decoder: ffmpeg.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "capture/AnnexB.h"
#include "capture/StreamVideoEncoder.h"
#include "platform/linux/video/SoftwareCompressionSessionFactory.h"
#include "platform/linux/video/VideoStatus.h"
#include "support/SyntheticScreen.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {
namespace {

constexpr std::int64_t kSecond = 1'000'000;

struct Frame {
  std::int64_t time;
  bool isKeyframe;
  Bytes payload;  // Annex B
};

/// One session with the settings that the program uses, and what came out of it.
class Recording {
 public:
  Recording(int width, int height, StreamVideoCodec codec, StreamFrameRate frameRate = StreamFrameRate::fps60,
            StreamBitRate bitRate = StreamBitRate::medium)
      : width_(width), height_(height), codec_(codec) {
    const auto type = codec == StreamVideoCodec::hevc ? VideoCodecType::hvc1 : VideoCodecType::avc1;
    auto made = SoftwareCompressionSessionFactory().create(width, height, type, std::nullopt);
    EXPECT_EQ(made.status, 0);
    session = std::move(made.session);
    for (const auto& property : compressionProperties(
             {StreamProfile::high, frameRate, codec, bitRate, StreamVideoEncoderKind::software})) {
      EXPECT_EQ(session->setProperty(property), 0) << static_cast<int>(property.key);
    }
    EXPECT_EQ(session->prepareToEncode(), 0);
  }

  const Frame& encode(const SharedPixelBuffer& image, std::int64_t time, bool forceKeyframe = false) {
    const std::size_t before = frames.size();
    std::shared_ptr<const EncodedSample> kept;
    const MediaStatus status = session->encode(
        image, time, 0, forceKeyframe, [&](MediaStatus outcome, std::shared_ptr<const EncodedSample> sample) {
          EXPECT_EQ(outcome, 0);
          ASSERT_TRUE(sample);
          auto unit = std::get<annexb::AccessUnit>(annexb::assemble(*sample, codec_));
          EXPECT_EQ(sample->presentationMicroseconds, time);
          kept = std::move(sample);
          frames.push_back({time, unit.isKeyframe, std::move(unit.payload)});
        });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(frames.size(), before + 1) << "one picture in, one out, at once";
    EXPECT_EQ(kept->data->length(), 0u) << "the encoder's memory is for the handler alone";
    return frames.back();
  }

  /// What ffmpeg writes about the stream into `output`, the file of that name.
  std::string ffmpeg(const std::string& arguments, const std::string& output) const {
    const TemporaryDirectory folder;
    std::string stream;
    for (const Frame& frame : frames) stream.append(frame.payload.begin(), frame.payload.end());
    writeText(folder.path() / "stream", stream);
    const std::string command = "cd " + folder.path().string() + " && ffmpeg -nostdin -hide_banner -f " +
                                (codec_ == StreamVideoCodec::hevc ? "hevc" : "h264") + " -i stream " +
                                arguments + " 2>log";
    EXPECT_EQ(std::system(command.c_str()), 0) << readText(folder.path() / "log");
    return readText(folder.path() / output);
  }

  /// The value of a syntax element where it first stands in the headers; "none" if it does not.
  std::string header(const std::string& element) {
    if (headers_.empty()) headers_ = ffmpeg("-c copy -bsf:v trace_headers -f null -", "log");
    const std::size_t at = headers_.find(" " + element + " ");
    if (at == std::string::npos) return "none";
    const std::size_t equals = headers_.find("= ", at);
    return headers_.substr(equals + 2, headers_.find('\n', equals) - equals - 2);
  }

  /// Decoded pictures, each its luma plane and then its interleaved chroma plane without padding.
  std::vector<std::string> decoded() const {
    const std::string all = ffmpeg("-f rawvideo -pix_fmt nv12 pictures", "pictures");
    const auto size = static_cast<std::size_t>(width_ * height_ * 3 / 2);
    EXPECT_EQ(all.size(), size * frames.size());
    std::vector<std::string> pictures;
    for (std::size_t at = 0; at + size <= all.size(); at += size) pictures.push_back(all.substr(at, size));
    return pictures;
  }

  std::unique_ptr<CompressionSession> session;
  std::vector<Frame> frames;

 private:
  const int width_;
  const int height_;
  const StreamVideoCodec codec_;
  std::string headers_;
};

/// Peak signal-to-noise ratio of luma in decibels.
double lumaQuality(const PixelBuffer& image, const std::string& decoded) {
  double sum = 0;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      const auto at = static_cast<std::size_t>(y * image.width() + x);
      const int difference =
          image.plane(0).data[y * image.plane(0).stride + x] - static_cast<std::uint8_t>(decoded[at]);
      sum += difference * difference;
    }
  }
  return 10 * std::log10(255.0 * 255.0 * image.width() * image.height() / std::max(sum, 1.0));
}

class BothCodecs : public testing::TestWithParam<StreamVideoCodec> {};
INSTANTIATE_TEST_SUITE_P(Software, BothCodecs,
                         testing::Values(StreamVideoCodec::h264, StreamVideoCodec::hevc),
                         [](const auto& codec) { return std::string(rawValue(codec.param)); });

TEST_P(BothCodecs, DecodesToTheColoursThatWentIn) {
  // White, black, and the primaries in ITU-R BT.709, video range.
  const std::array<std::array<std::uint8_t, 3>, 5> colours{
      {{235, 128, 128}, {16, 128, 128}, {63, 102, 240}, {173, 42, 26}, {32, 240, 118}}};
  Recording recording(320, 178, GetParam());  // neither side a whole number of blocks
  auto image = makePixelBuffer(320, 178);
  for (int y = 0; y < 178; ++y) {
    for (int x = 0; x < 320; ++x) {
      const auto& colour = colours[static_cast<std::size_t>(x / 64)];
      image->plane(0).data[y * image->plane(0).stride + x] = colour[0];
      image->plane(1).data[y / 2 * image->plane(1).stride + x] = colour[x % 2 == 0 ? 1 : 2];
    }
  }
  recording.encode(image, 0);
  recording.encode(image, 40'000);
  const auto pictures = recording.decoded();
  ASSERT_EQ(pictures.size(), 2u);
  const auto sample = [&](std::size_t at) { return int{static_cast<std::uint8_t>(pictures[1][at])}; };
  for (std::size_t stripe = 0; stripe < colours.size(); ++stripe) {
    const std::size_t x = stripe * 64 + 32;
    for (const std::size_t y : {4u, 88u, 174u}) {
      EXPECT_NEAR(sample(y * 320 + x), colours[stripe][0], 3);
      EXPECT_NEAR(sample(178 * 320 + y / 2 * 320 + x), colours[stripe][1], 3);
      EXPECT_NEAR(sample(178 * 320 + y / 2 * 320 + x + 1), colours[stripe][2], 3);
    }
  }
}

TEST_P(BothCodecs, TheHeadersPromiseNoDelayAndStateTheColours) {
  Recording recording(1280, 720, GetParam(), StreamFrameRate::fps30);
  SyntheticScreen screen(1280, 720);
  const Frame& first = recording.encode(screen.text(0), 0);
  EXPECT_TRUE(first.isKeyframe);
  // Colours of ITU-R BT.709 in video range; levels that hold 3600 macroblocks 30 times a second.
  std::string expected =
      "colour_primaries 1 transfer_characteristics 1 matrix_coefficients 1 video_full_range_flag 0 "
      "aud_unit_type none ";
  if (GetParam() == StreamVideoCodec::h264) {
    expected +=
        "profile_idc 66 level_idc 31 max_num_reorder_frames 0 max_dec_frame_buffering 1 "
        "max_num_ref_frames 1 entropy_coding_mode_flag 0";
    EXPECT_EQ(first.payload[4] & 31, 7) << "a sequence parameter set comes first";
  } else {
    expected +=
        "general_profile_idc 1 general_level_idc 93 sps_max_num_reorder_pics[0] 0 "
        "sps_max_dec_pic_buffering_minus1[0] 2";
    EXPECT_EQ(first.payload[4] >> 1, 32) << "a video parameter set comes first";
  }
  std::istringstream words(expected);
  for (std::string element, value; words >> element >> value;) {
    EXPECT_EQ(recording.header(element), value) << element;
  }
}

TEST(H264Session, TheLevelIsTheLowestThatHoldsSizeAndRate) {
  for (const auto& [width, height, level] :
       {std::tuple{1600, 900, "42"}, {2, 2, "21"}}) {  // the smaller for its bit rate
    Recording recording(width, height, StreamVideoCodec::h264, StreamFrameRate::fps60);
    recording.encode(makePixelBuffer(width, height), 0);
    EXPECT_EQ(recording.header("level_idc"), level);
    EXPECT_EQ(recording.decoded().size(), 1u);
  }
}

TEST_P(BothCodecs, KeyframesComeWhenTheyAreDueAndOnRequest) {
  Recording recording(320, 192, GetParam(), StreamFrameRate::fps24);
  SyntheticScreen screen(320, 192);
  std::int64_t time = 0;
  for (int frame = 0; frame < 50; ++frame) {
    EXPECT_EQ(recording.encode(screen.text(frame), time += 10'000).isKeyframe, frame % 48 == 0) << frame;
  }
  EXPECT_FALSE(recording.encode(screen.text(60), time += kSecond).isKeyframe);
  const auto still = screen.text(61);
  EXPECT_TRUE(recording.encode(still, time += kSecond).isKeyframe);
  EXPECT_FALSE(recording.encode(screen.repeat(*still), time += 9 * kSecond).isKeyframe);
  EXPECT_TRUE(recording.encode(screen.repeat(*still), time += kSecond, true).isKeyframe);
  EXPECT_EQ(recording.decoded().size(), recording.frames.size());
}

TEST_P(BothCodecs, NoSecondCarriesMoreThanTheLimit) {
  Recording recording(640, 360, GetParam(), StreamFrameRate::fps30, StreamBitRate::low);
  std::mt19937 random(3);
  std::int64_t time = 0;
  for (int frame = 0; frame < 75; ++frame) {
    // A different picture of noise each time: the worst there is. Twice it comes after a pause.
    auto noise = makePixelBuffer(640, 360);
    for (int i = 0; i < 640 * 360; ++i) noise->plane(0).data[i] = static_cast<std::uint8_t>(random());
    recording.encode(noise, time += frame == 20 || frame == 50 ? 1'500'000 : 33'333);
  }
  for (auto first = recording.frames.begin(); first != recording.frames.end(); ++first) {
    std::size_t bytes = 0;
    for (auto next = first; next != recording.frames.end() && next->time < first->time + kSecond; ++next) {
      bytes += next->payload.size();
    }
    EXPECT_LE(bytes, 375'000u);
  }
}

TEST(H264Session, ASmallChangeGoesFirstAndAStillPictureIsRefinedAndThenCostsNothing) {
  Recording recording(1280, 720, StreamVideoCodec::h264, StreamFrameRate::fps60, StreamBitRate::low);
  SyntheticScreen screen(1280, 720);
  std::int64_t time = 0;
  const auto sizeOf = [&](const SharedPixelBuffer& image, std::int64_t step = 50'000) {
    return recording.encode(image, time += step).payload.size();
  };
  const auto still = screen.text(0);
  sizeOf(still);
  const std::size_t sharpening = sizeOf(screen.repeat(*still));
  const std::size_t change = sizeOf(screen.caret(true));
  EXPECT_LT(change * 8, sharpening);
  // What never rests is sharpened all the same.
  std::size_t largest = 0;
  for (int frame = 0; frame < 4; ++frame) largest = std::max(largest, sizeOf(screen.caret(frame % 2 != 0)));
  EXPECT_GT(largest, change * 8);

  const auto resting = screen.caret(false);
  sizeOf(resting);
  for (int repeat = 0; repeat < 20; ++repeat) sizeOf(screen.repeat(*resting));
  std::size_t restingBytes = 0;
  for (int repeat = 0; repeat < 20; ++repeat) restingBytes += sizeOf(screen.repeat(*resting), kSecond);
  EXPECT_LT(restingBytes / 20, 100u);
  const auto pictures = recording.decoded();
  const double last = lumaQuality(*resting, pictures.back());
  EXPECT_GT(last, 34);
  EXPECT_GT(last, lumaQuality(*still, pictures.front()) + 3);
}

TEST(H264Session, WhatIsSaidToBeUnchangedStaysAndWhatChangedIsSeen) {
  Recording recording(640, 368, StreamVideoCodec::h264);
  SyntheticScreen screen(640, 368);
  std::int64_t time = 0;
  std::vector<std::shared_ptr<PixelBuffer>> sources;
  const auto show = [&](std::shared_ptr<PixelBuffer> image) {
    recording.encode(image, time += 16'667);
    sources.push_back(std::move(image));
  };
  show(screen.text(0));
  for (int frame = 0; frame < 30; ++frame) show(screen.caret(frame % 2 == 0));
  for (int frame = 0; frame < 30; ++frame) show(screen.video(frame, 200, 100));
  // After a picture that never came, nothing may be taken for unchanged.
  (void)screen.text(90);
  auto lost = screen.text(200);
  lost->changes->rectangles = {};
  show(lost);
  for (int repeat = 0; repeat < 5; ++repeat) show(screen.repeat(*lost));

  const auto pictures = recording.decoded();
  ASSERT_EQ(pictures.size(), sources.size());
  for (std::size_t i = 0; i < pictures.size(); ++i) {
    EXPECT_GT(lumaQuality(*sources[i], pictures[i]), 30) << i;
  }
  // The caret itself, on and off.
  const auto caretPixel = [&](std::size_t picture) {
    return static_cast<std::uint8_t>(pictures[picture][(184 + 8) * 640 + 320]);
  };
  EXPECT_LT(caretPixel(29), 60);
  EXPECT_NEAR(caretPixel(30), sources[30]->plane(0).data[(184 + 8) * 640 + 320], 30);
}

TEST_P(BothCodecs, SessionsSideBySideDoNotDisturbEachOther) {
  const auto work = [codec = GetParam()](std::size_t* bytes) {
    Recording recording(320, 192, codec);
    SyntheticScreen screen(320, 192);
    for (int frame = 0; frame < 20; ++frame) {
      *bytes += recording.encode(screen.text(frame), frame * 16'667).payload.size();
    }
  };
  std::size_t here = 0;
  std::size_t there = 0;
  std::thread other(work, &there);
  work(&here);
  other.join();
  EXPECT_EQ(here, there);
}

TEST_P(BothCodecs, RefusesWhatItCannotDoAndEverythingAfterItsEnd) {
  const auto type = GetParam() == StreamVideoCodec::hevc ? VideoCodecType::hvc1 : VideoCodecType::avc1;
  const auto status = [&](std::int32_t width, std::int32_t height,
                          std::optional<EncoderSpecification> specification = std::nullopt) {
    return SoftwareCompressionSessionFactory().create(width, height, type, specification).status;
  };
  EXPECT_EQ(status(640, 360, EncoderSpecification{true, std::nullopt, true}), kCouldNotFindVideoEncoder);
  EXPECT_EQ(status(640, 360, EncoderSpecification{std::nullopt, true, true}), kCouldNotFindVideoEncoder);
  EXPECT_EQ(status(640, 360, EncoderSpecification{false, std::nullopt, true}), 0);
  for (const auto& [width, height] : {std::pair{0, 360}, {640, -2}, {641, 360}, {640, 361}, {9000, 360}}) {
    EXPECT_EQ(status(width, height), kParameterError);
  }

  Recording recording(640, 360, GetParam());
  CompressionSession& session = *recording.session;
  const auto encode = [&](SharedPixelBuffer image) {
    return session.encode(image, 0, 0, false, [](MediaStatus, const auto&) { ADD_FAILURE(); });
  };
  EXPECT_EQ(encode(nullptr), kParameterError);
  EXPECT_EQ(encode(makePixelBuffer(320, 360)), kParameterError);
  EXPECT_EQ(encode(makePixelBuffer(640, 360, PixelFormat::bgrx)), kParameterError);
  EXPECT_EQ(session.completeFrames(), 0);
  session.invalidate();
  session.invalidate();
  EXPECT_EQ(encode(makePixelBuffer(640, 360)), kInvalidSession);
  EXPECT_EQ(session.completeFrames(), kInvalidSession);
  EXPECT_EQ(session.setProperty({CompressionPropertyKey::realTime, true}), kInvalidSession);
}

}  // namespace
}  // namespace kestrune::linux_platform
