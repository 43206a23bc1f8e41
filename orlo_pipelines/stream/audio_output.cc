// Audio output: the sound device, the write of one frame and the choice of
// what is heard.
#include <fcntl.h>
#include <unistd.h>

#include "shared_word.hh"
#include "stream/stream_delivery.hh"

extern "C" ORLO_API int ravel_audio_new(int nonblock) {
  const int fd = open("/dev/dsp", O_WRONLY | (nonblock != 0 ? O_NONBLOCK : 0));
  if (fd <= 0) {
    // Descriptor 0 is refused too: the handle reads 0 as "no device".
    if (fd == 0) close(fd);
    g_warning("%s: cannot open audio device\n", "ravel_audio_new");
    return 0;
  }
  return fd;
}

extern "C" ORLO_API int ravel_put_audio_stream(int h_audio, GstBuffer *buffer, const void *data,
                                               int size) {
  int count = 0;
  if (h_audio != 0) {
    // A short write is not continued: the device keeps the pace of play.
    count = size < 0 ? -1 : static_cast<int>(write(h_audio, data, static_cast<size_t>(size)));
  }
  if (buffer != nullptr) gst_buffer_unref(buffer);
  if (count != size)
    g_warning("[%s:%d] stream_size=%d, written_size=:%d", "ravel_put_audio_stream", __LINE__, size,
              count);
  return count;
}

extern "C" ORLO_API int orlo_display_audio_change(orlo_display_t *h_display, int audio_ch,
                                                  int audio_all) {
  if (h_display == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_audio_change", "h_display != NULL");
    return 0;
  }
  orlo::store_word(h_display->audio_ch, audio_ch);
  orlo::store_word(h_display->audio_all, audio_all);
  return 0;
}

namespace orlo {

void play_audio_frame(orlo_display_t *h, const frame &f) {
  const int32_t ch = load_word(h->audio_ch);
  const int32_t all = load_word(h->audio_all);
  const bool heard = ch == -1 ? all == 1 : (all != 0 || f.channel == ch);
  if (!heard) return;
  ravel_put_audio_stream(h->h_audio, gst_buffer_ref(f.buffer), f.payload, f.size);
}

}  // namespace orlo
