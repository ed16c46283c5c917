// The logging half of the OS layer: the codecs' lines, with time and level, on standard error.
// Link it to let the library find it; leave it out and the codecs are silent.
#include <kel_sys_diag/osal.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <array>
#include <cstdarg>
#include <cstdio>

namespace {

// Never destroyed: codecs may fail while static objects are being destroyed.
spdlog::logger& logger() {
  static spdlog::logger& instance = *[] {
    auto* const created =
        new spdlog::logger("codec", std::make_shared<spdlog::sinks::stderr_sink_mt>());
    created->set_pattern("%Y-%m-%d %H:%M:%S.%e %l %v");
    created->flush_on(spdlog::level::trace);
    return created;
  }();
  return instance;
}

}  // namespace

// Level 2 is the only one there is, and codes 12 and 22 both tell of something refused: warnings.
int32_t QSV_OsalLogWrite(const KorvaLogDescriptor* descriptor, uint32_t level, uint32_t code,
                         const char* /*file*/, uint32_t /*line*/, const char* function,
                         const char* format, ...) {
  std::array<char, 512> text{};
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  if (length < 0) {
    return -1;
  }
  logger().warn("{}/{} level {} code {} {}: {}", descriptor->module, descriptor->subModule, level,
                code, function, text.data());
  return 0;
}
