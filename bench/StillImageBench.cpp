// The still image source: its conversion beside OpenCV's, libyuv's (other coefficients, of 7 bits),
// a plain loop and a copy of the same bytes, and load() as a whole beside decoding alone. Arguments
// of a run: the picture's size (0: 1920 x 1080, 1: 12 megapixels) and its content (0: noise in
// colour, 1: noise in grey).

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <libyuv/convert.h>
#include <media_backend/StillImageFrameSource.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "BgrToNv12.h"
#include "PlainBgrToNv12.h"
#include "Ratios.h"
#include "support/TempFolder.h"

namespace {

const std::vector<Ratio> kRatios = {
    {"1080p, colour: conversion / OpenCV's", "convert/0/0", "cvtColor/0/0", 1.25},
    {"1080p, grey: conversion / OpenCV's", "convert/0/1", "cvtColor/0/1", 1.4},
    {"12 megapixels, colour: conversion / OpenCV's", "convert/1/0", "cvtColor/1/0", 1.25},
    {"12 megapixels, grey: conversion / OpenCV's", "convert/1/1", "cvtColor/1/1", 1.4},
    {"1080p, colour: conversion / libyuv's", "convert/0/0", "libyuv/0/0", kNoAim},
    {"12 megapixels, colour: conversion / libyuv's", "convert/1/0", "libyuv/1/0", kNoAim},
    {"1080p, colour: conversion / plain loop", "convert/0/0", "plain/0/0", 0.04},
    {"1080p, grey: conversion / plain loop", "convert/0/1", "plain/0/1", 0.04},
    {"12 megapixels, colour: conversion / plain loop", "convert/1/0", "plain/1/0", 0.04},
    {"12 megapixels, grey: conversion / plain loop", "convert/1/1", "plain/1/1", 0.04},
    {"1080p, colour: conversion / copy", "convert/0/0", "copy/0/0", kNoAim},
    {"1080p JPEG: load() / cv::imread", "load/0/0", "imread/0/0", 1.1},
    {"12 megapixels JPEG: load() / cv::imread", "load/1/0", "imread/1/0", 1.1},
};

cv::Mat noise(const benchmark::State& state) {
  const cv::Size size = state.range(0) == 0 ? cv::Size(1920, 1080) : cv::Size(4000, 3000);
  cv::Mat image(size, CV_8UC3);
  cv::RNG random(1);
  random.fill(image, cv::RNG::UNIFORM, 0, 256);
  if (state.range(1) == 1) {
    for (unsigned char* at = image.data; at != image.dataend; at += 3) {
      at[1] = at[2] = at[0];
    }
  }
  return image;
}

template <void (*Convert)(const std::uint8_t*, std::size_t, unsigned, unsigned, std::uint8_t*)>
void run(benchmark::State& state) {
  const cv::Mat image = noise(state);
  std::vector<std::uint8_t> nv12(image.total() * 3 / 2);
  for (auto _ : state) {
    Convert(image.data, image.step[0], static_cast<unsigned>(image.cols),
            static_cast<unsigned>(image.rows), nv12.data());
    benchmark::ClobberMemory();
  }
}

void best(const std::uint8_t* bgr, std::size_t step, unsigned width, unsigned height,
          std::uint8_t* nv12) {
  media_backend::bgrToNv12Conversions().front()(bgr, step, width, height, nv12);
}

void copy(const std::uint8_t* bgr, std::size_t /*step*/, unsigned width, unsigned height,
          std::uint8_t* nv12) {
  std::memcpy(nv12, bgr, std::size_t{width} * height * 3 / 2);
}

// Into I420, which takes it one pass; into NV12 it would take two.
void convertByLibyuv(const std::uint8_t* bgr, std::size_t step, unsigned width, unsigned height,
                     std::uint8_t* i420) {
  const int columns = static_cast<int>(width);
  std::uint8_t* const u = i420 + std::size_t{width} * height;
  std::uint8_t* const v = u + std::size_t{width} * height / 4;
  libyuv::RGB24ToI420(bgr, static_cast<int>(step), i420, columns, u, columns / 2, v, columns / 2,
                      columns, static_cast<int>(height));
}

void cvtColor(benchmark::State& state) {
  const cv::Mat image = noise(state);
  cv::Mat i420;
  for (auto _ : state) {
    cv::cvtColor(image, i420, cv::COLOR_BGR2YUV_I420);
    benchmark::ClobberMemory();
  }
}

// Blurred noise: 2.9 bits a pixel, as a telephone's photographs have.
std::string jpegOf(const benchmark::State& state, const TempFolder& folder) {
  cv::Mat image = noise(state);
  cv::blur(image, image, cv::Size(7, 7));
  const std::string path = folder / "image.jpg";
  if (!cv::imwrite(path, image)) {
    throw std::runtime_error("cannot write " + path);
  }
  return path;
}

void load(benchmark::State& state) {
  const TempFolder folder;
  const media_backend::StillImageFrameSourceConfig config{jpegOf(state, folder)};
  const media_backend::StillImageFrameSource source;
  std::string error;
  for (auto _ : state) {
    benchmark::DoNotOptimize(source.load(config, error));
  }
}

void imread(benchmark::State& state) {
  const TempFolder folder;
  const std::string path = jpegOf(state, folder);
  for (auto _ : state) {
    benchmark::DoNotOptimize(cv::imread(path, cv::IMREAD_COLOR));
  }
}

}  // namespace

BENCHMARK(run<best>)->Name("convert")->ArgsProduct({{0, 1}, {0, 1}});
BENCHMARK(cvtColor)->ArgsProduct({{0, 1}, {0, 1}});
BENCHMARK(run<plainLoop>)->Name("plain")->ArgsProduct({{0, 1}, {0, 1}})->Iterations(1);
BENCHMARK(run<convertByLibyuv>)->Name("libyuv")->Args({0, 0})->Args({1, 0});
BENCHMARK(run<copy>)->Name("copy")->Args({0, 0});
BENCHMARK(load)->Args({0, 0})->Args({1, 0});
BENCHMARK(imread)->Args({0, 0})->Args({1, 0});

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  return runAndCompare(argc, argv, kRatios);
}
