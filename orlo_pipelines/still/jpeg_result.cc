// The JPEG hand-over: the engine's callback and the one record it fills.
#include <cstdlib>

#include "display/display_state.hh"
#include "still/engine_answer.hh"
#include "stream/stream_delivery.hh"

orlo_jpeg_result_t g_jpeg_result = {};

void _cb_get_jpeg_image(void **pbuf, uint32_t word1, uint32_t word2, uint32_t word3, uint32_t word4,
                        uint32_t word5) {
  orlo_display_t *h = g_display;
  void *buf = pbuf != nullptr ? *pbuf : nullptr;
  if (h == nullptr) {
    // No handle, so nobody can wait for this answer: it is late by nature.
    std::free(buf);
    g_warning("\n###### %s : %d : late !!! get_jpeg.cancel, so free buf ###\n",
              "_cb_get_jpeg_image", __LINE__);
    return;
  }
  orlo::engine_answer(h->mutex_jpeg, h->cond_jpeg).deliver([&] {
    g_jpeg_result.buf = buf;
    g_jpeg_result.word1 = word1;
    g_jpeg_result.word2 = word2;
    g_jpeg_result.word3 = word3;
    g_jpeg_result.word4 = word4;
    g_jpeg_result.word5 = word5;
    if (g_jpeg_result.cancel == 1) {
      // The caller has given up: the answer is ours to free, and the record
      // is left clean for the next snapshot.
      std::free(buf);
      g_jpeg_result = {};
      g_warning("\n###### %s : %d : late !!! get_jpeg.cancel, so free buf ###\n",
                "_cb_get_jpeg_image", __LINE__);
    }
  });
}
