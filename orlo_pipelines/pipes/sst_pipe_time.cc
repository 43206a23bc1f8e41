// The time print of the playback pipe's lines.
#include <glib.h>

#include "pipes/sst_pipe_internal.hh"

namespace orlo {

std::string format_pb_time(uint64_t t) {
  if (t == UINT64_MAX) return "99:99:99.999999999";
  gchar *s = g_strdup_printf("%u:%02u:%02u.%09u", static_cast<unsigned>(t / 3600000000000ULL),
                             static_cast<unsigned>((t / 60000000000ULL) % 60),
                             static_cast<unsigned>((t / 1000000000ULL) % 60),
                             static_cast<unsigned>(t % 1000000000ULL));
  std::string out(s);
  g_free(s);
  return out;
}

}  // namespace orlo
