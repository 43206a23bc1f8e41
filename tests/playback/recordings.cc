#include "recordings.hh"

#include <glib/gstdio.h>

namespace playback_test {

temp_folder::temp_folder() {
  gchar *p = g_dir_make_tmp("orlo-playback-XXXXXX", nullptr);
  path_ = p != nullptr ? p : "";
  g_free(p);
}

temp_folder::~temp_folder() {
  if (path_.empty()) return;
  GDir *dir = g_dir_open(path_.c_str(), 0, nullptr);
  if (dir != nullptr) {
    while (const gchar *name = g_dir_read_name(dir)) {
      gchar *f = g_build_filename(path_.c_str(), name, nullptr);
      g_unlink(f);
      g_free(f);
    }
    g_dir_close(dir);
  }
  g_rmdir(path_.c_str());
}

std::string channel_file(const std::string &folder, int ch) {
  gchar name[16];
  g_snprintf(name, sizeof name, "ch%02d.h264", ch);
  gchar *p = g_build_filename(folder.c_str(), name, nullptr);
  std::string s(p);
  g_free(p);
  return s;
}

bool record_channel(const std::string &folder, int ch, int frames, int64_t start) {
  gchar *launch = g_strdup_printf(
      "videotestsrc num-buffers=%d pattern=ball ! video/x-raw,width=64,height=48,framerate=%d/1 "
      "! x264enc tune=zerolatency speed-preset=ultrafast bframes=0 key-int-max=%d "
      "! video/x-h264,stream-format=byte-stream,alignment=au "
      "! kelsstrec location=\"%s\" ch=%d start-time=%" G_GINT64_FORMAT,
      frames, kFps, kIntraEvery, folder.c_str(), ch, start);
  GstElement *pipeline = gst_parse_launch(launch, nullptr);
  g_free(launch);
  if (pipeline == nullptr) return false;
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus *bus = gst_element_get_bus(pipeline);
  GstMessage *msg = gst_bus_timed_pop_filtered(
      bus, 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  const bool ok = msg != nullptr && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
  if (msg != nullptr) gst_message_unref(msg);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return ok;
}

}  // namespace playback_test
