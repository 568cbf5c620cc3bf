#include "apps/console/gl_painter.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace mirn {
namespace {

constexpr size_t kBytesPerPixel = 4;

// A rectangle over the viewport, made of four corners that need no buffer.
constexpr const char* kVertexShader = R"(
out vec2 place;
void main() {
  vec2 corner = vec2(float(gl_VertexID & 1), float(gl_VertexID >> 1));
  place = vec2(corner.x, 1.0 - corner.y);
  gl_Position = vec4(corner * 2.0 - 1.0, 0.0, 1.0);
}
)";

// One output pixel covers `extent` of the picture: the mean of taps x taps linear samples inside it is an area average
// when the picture is shrunk; one tap is the pixel itself otherwise. The bytes lie as BGRA in an RGBA texture.
constexpr const char* kFragmentShader = R"(
in vec2 place;
out vec4 colour;
uniform sampler2D picture;
uniform vec2 extent;
uniform int taps;
void main() {
  vec3 sum = vec3(0.0);
  for (int y = 0; y < taps; ++y) {
    for (int x = 0; x < taps; ++x) {
      vec2 offset = (vec2(float(x), float(y)) + 0.5) / float(taps) - 0.5;
      sum += texture(picture, place + offset * extent).bgr;
    }
  }
  colour = vec4(sum / float(taps * taps), 1.0);
}
)";

unsigned compile(unsigned kind, bool embedded, const char* source, std::string* error) {
  const char* head = embedded ? "#version 300 es\nprecision highp float;\nprecision highp int;\n" : "#version 150\n";
  std::array<const char*, 2> parts = {head, source};
  unsigned shader = glCreateShader(kind);
  glShaderSource(shader, static_cast<GLsizei>(parts.size()), parts.data(), nullptr);
  glCompileShader(shader);
  int good = 0;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &good);
  if (good == 0) {
    std::array<char, 512> log{};
    glGetShaderInfoLog(shader, static_cast<GLsizei>(log.size()), nullptr, log.data());
    *error = log.data();
    glDeleteShader(shader);
    return 0;
  }
  return shader;
}

}  // namespace

bool GlPainter::init(bool embedded, std::string* error) {
  unsigned vertex = compile(GL_VERTEX_SHADER, embedded, kVertexShader, error);
  unsigned fragment = vertex != 0 ? compile(GL_FRAGMENT_SHADER, embedded, kFragmentShader, error) : 0;
  if (fragment == 0) {
    glDeleteShader(vertex);
    return false;
  }
  program_ = glCreateProgram();
  glAttachShader(program_, vertex);
  glAttachShader(program_, fragment);
  glLinkProgram(program_);
  glDeleteShader(vertex);
  glDeleteShader(fragment);
  int good = 0;
  glGetProgramiv(program_, GL_LINK_STATUS, &good);
  if (good == 0) {
    *error = "the shaders don't link";
    destroy();
    return false;
  }
  step_place_ = glGetUniformLocation(program_, "extent");
  taps_place_ = glGetUniformLocation(program_, "taps");
  glGenVertexArrays(1, &array_);
  glGenTextures(1, &texture_);
  width_ = 0;
  height_ = 0;
  return true;
}

void GlPainter::destroy() {
  glDeleteTextures(1, &texture_);
  glDeleteVertexArrays(1, &array_);
  glDeleteProgram(program_);
  texture_ = 0;
  array_ = 0;
  program_ = 0;
  width_ = 0;
  height_ = 0;
}

void GlPainter::upload(const PixelBufferRef& picture, const ChangedRows& rows) {
  auto width = static_cast<int>(picture->width());
  auto height = static_cast<int>(picture->height());
  glBindTexture(GL_TEXTURE_2D, texture_);
  ChangedRows wanted = rows;
  if (width != width_ || height != height_) {
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    wanted = {0, picture->height() - 1};
    width_ = width;
    height_ = height;
  }
  wanted.last = std::min(wanted.last, picture->height() - 1);
  picture->lockBaseAddress(kPixelBufferLockReadOnly);
  if (const uint8_t* bytes = picture->baseAddress(); bytes != nullptr && wanted.first <= wanted.last) {
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, static_cast<int>(picture->bytesPerRow() / kBytesPerPixel));
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, static_cast<int>(wanted.first), width,
                    static_cast<int>(wanted.last - wanted.first + 1), GL_RGBA, GL_UNSIGNED_BYTE,
                    bytes + wanted.first * picture->bytesPerRow());
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  }
  picture->unlockBaseAddress(kPixelBufferLockReadOnly);
}

void GlPainter::draw(const Placement& placement, int view_height) const {
  glClearColor(0, 0, 0, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  if (width_ == 0 || placement.width < 1 || placement.height < 1) {
    return;
  }
  bool whole = placement.width % width_ == 0 && placement.height % height_ == 0;
  int filter = whole ? GL_NEAREST : GL_LINEAR;
  double shrink =
      std::max(static_cast<double>(width_) / placement.width, static_cast<double>(height_) / placement.height);
  constexpr int kMostTaps = 8;
  int taps = shrink <= 1 ? 1 : std::clamp(static_cast<int>(std::ceil(shrink)), 2, kMostTaps);
  glViewport(placement.left, view_height - placement.top - placement.height, placement.width, placement.height);
  glUseProgram(program_);
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, texture_);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, filter);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, filter);
  glUniform2f(step_place_, 1.0F / static_cast<float>(placement.width), 1.0F / static_cast<float>(placement.height));
  glUniform1i(taps_place_, taps);
  glBindVertexArray(array_);
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
  glBindVertexArray(0);
}

}  // namespace mirn
