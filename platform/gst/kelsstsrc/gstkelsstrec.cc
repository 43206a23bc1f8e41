// kelsstrec: records one channel's H.264 into the recordings folder, in the
// form that kelsstsrc plays (see recording.hh).
//
//   videotestsrc ! x264enc ! video/x-h264,stream-format=byte-stream,alignment=au
//     ! kelsstrec location=/rec ch=0
//
// Properties:
//   "location"    string, "recordings": the recordings folder, made if missing.
//   "ch"          int 0..63, 0: the channel; the file is "<location>/chNN.h264".
//   "start-time"  uint64 ns, 0: the recorder's wall-clock time of the first
//                 frame; 0 takes the real time when it comes.  Later frames
//                 are timed from it by their buffer times.
//   "sync-writes" boolean, FALSE: flush each intra frame to the disk
//                 (fdatasync), bounding what a power loss can take.
//   "max-size"    uint64 bytes, 0: a file that would grow beyond this is cut
//                 at the next intra frame, which opens the next file
//                 (chNN-0001.h264, ...); 0: no limit.
//   "max-duration" uint64 ns, 0: the same for the recorder time a file spans.
// A file that exists is appended to, never rewritten: the last of a
// channel's files, when the recorder starts again.
#include <fcntl.h>
#include <gst/base/gstbasesink.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "gstkelsstsrc_elements.hh"
#include "recording.hh"

GST_DEBUG_CATEGORY_STATIC(kelsstrec_debug);
#define GST_CAT_DEFAULT kelsstrec_debug

struct GstKelSstRec {
  GstBaseSink parent;
  gchar *location;
  gint ch;
  guint64 start_time;
  gboolean sync_writes;
  guint64 max_size;
  guint64 max_duration;
  int fd;
  int file_index;      // of the channel's files
  guint64 file_bytes;  // in the open file
  gint64 file_start;   // recorder time of this run's first frame in it, -1 none
  gint64 origin;       // wall-clock time of buffer time 0, fixed at the first frame
};

struct GstKelSstRecClass {
  GstBaseSinkClass parent_class;
};

G_DEFINE_TYPE(GstKelSstRec, gst_kelsstrec, GST_TYPE_BASE_SINK)

namespace {

enum {
  PROP_0,
  PROP_LOCATION,
  PROP_CH,
  PROP_START_TIME,
  PROP_SYNC_WRITES,
  PROP_MAX_SIZE,
  PROP_MAX_DURATION
};

GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-h264, stream-format=(string)byte-stream, alignment=(string)au"));

GstKelSstRec *self_of(gpointer p) { return reinterpret_cast<GstKelSstRec *>(p); }

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec) {
  GstKelSstRec *self = self_of(object);
  GST_OBJECT_LOCK(self);
  switch (id) {
    case PROP_LOCATION:
      g_free(self->location);
      self->location = g_value_dup_string(value);
      break;
    case PROP_CH:
      self->ch = g_value_get_int(value);
      break;
    case PROP_START_TIME:
      self->start_time = g_value_get_uint64(value);
      break;
    case PROP_SYNC_WRITES:
      self->sync_writes = g_value_get_boolean(value);
      break;
    case PROP_MAX_SIZE:
      self->max_size = g_value_get_uint64(value);
      break;
    case PROP_MAX_DURATION:
      self->max_duration = g_value_get_uint64(value);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(self);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec) {
  GstKelSstRec *self = self_of(object);
  GST_OBJECT_LOCK(self);
  switch (id) {
    case PROP_LOCATION:
      g_value_set_string(value, self->location);
      break;
    case PROP_CH:
      g_value_set_int(value, self->ch);
      break;
    case PROP_START_TIME:
      g_value_set_uint64(value, self->start_time);
      break;
    case PROP_SYNC_WRITES:
      g_value_set_boolean(value, self->sync_writes);
      break;
    case PROP_MAX_SIZE:
      g_value_set_uint64(value, self->max_size);
      break;
    case PROP_MAX_DURATION:
      g_value_set_uint64(value, self->max_duration);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(self);
}

void finalize(GObject *object) {
  g_free(self_of(object)->location);
  G_OBJECT_CLASS(gst_kelsstrec_parent_class)->finalize(object);
}

std::string file_path(GstKelSstRec *self, int k) {
  GST_OBJECT_LOCK(self);
  const std::string folder = self->location != nullptr ? self->location : "recordings";
  const int ch = self->ch;
  GST_OBJECT_UNLOCK(self);
  return kelsst::segment_path(kelsst::channel_path(folder, ch), k);
}

// Opens the channel's file `k` for appending.
gboolean open_file(GstKelSstRec *self, int k) {
  const std::string path = file_path(self, k);
  self->fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (self->fd < 0) {
    GST_ELEMENT_ERROR(self, RESOURCE, OPEN_WRITE, ("cannot open %s", path.c_str()),
                      ("%s", g_strerror(errno)));
    return FALSE;
  }
  const off_t size = lseek(self->fd, 0, SEEK_END);
  self->file_index = k;
  self->file_bytes = size > 0 ? static_cast<guint64>(size) : 0;
  self->file_start = -1;
  GST_DEBUG_OBJECT(self, "opened %s at byte %" G_GUINT64_FORMAT, path.c_str(), self->file_bytes);
  return TRUE;
}

gboolean start(GstBaseSink *sink) {
  GstKelSstRec *self = self_of(sink);
  GST_OBJECT_LOCK(self);
  std::string folder = self->location != nullptr ? self->location : "recordings";
  GST_OBJECT_UNLOCK(self);
  if (g_mkdir_with_parents(folder.c_str(), 0755) != 0) {
    GST_ELEMENT_ERROR(self, RESOURCE, OPEN_WRITE, ("cannot make folder %s", folder.c_str()),
                      ("%s", g_strerror(errno)));
    return FALSE;
  }
  // The recording goes on in the channel's last file.
  int last = 0;
  while (g_file_test(file_path(self, last + 1).c_str(), G_FILE_TEST_IS_REGULAR)) last++;
  self->origin = -1;
  return open_file(self, last);
}

// Whether an intra frame of `bytes` bytes at recorder time `time` opens the
// next file.
bool cut_due(GstKelSstRec *self, size_t bytes, gint64 time) {
  if (self->file_bytes == 0) return false;
  GST_OBJECT_LOCK(self);
  const guint64 max_size = self->max_size, max_duration = self->max_duration;
  GST_OBJECT_UNLOCK(self);
  return (max_size != 0 && self->file_bytes + bytes > max_size) ||
         (max_duration != 0 && self->file_start >= 0 &&
          static_cast<guint64>(time - self->file_start) >= max_duration);
}

gboolean cut(GstKelSstRec *self) {
  fdatasync(self->fd);
  close(self->fd);
  self->fd = -1;
  GST_DEBUG_OBJECT(self, "cut file %d at %" G_GUINT64_FORMAT " bytes", self->file_index,
                   self->file_bytes);
  return open_file(self, self->file_index + 1);
}

// One write per frame: a cut leaves whole frames and one partial tail.
gboolean write_frame(GstKelSstRec *self, const std::vector<uint8_t> &out, int ch) {
  size_t done = 0;
  while (done < out.size()) {
    ssize_t n = write(self->fd, out.data() + done, out.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      GST_ELEMENT_ERROR(self, RESOURCE, WRITE, ("cannot write channel %d", ch),
                        ("%s", g_strerror(errno)));
      return FALSE;
    }
    done += static_cast<size_t>(n);
  }
  self->file_bytes += out.size();
  return TRUE;
}

gboolean stop(GstBaseSink *sink) {
  GstKelSstRec *self = self_of(sink);
  if (self->fd >= 0) {
    fdatasync(self->fd);
    close(self->fd);
  }
  self->fd = -1;
  return TRUE;
}

GstFlowReturn render(GstBaseSink *sink, GstBuffer *buffer) {
  GstKelSstRec *self = self_of(sink);
  GstMapInfo map;
  if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) return GST_FLOW_ERROR;
  // Keep every NAL unit but access unit delimiters: our SEI opens the access
  // unit, and a delimiter may only come first.
  std::vector<uint8_t> au;
  au.reserve(map.size);
  bool intra = false;
  kelsst::for_each_nal(map.data, map.size, [&](int type, size_t from, size_t to) {
    if (type == 5) intra = true;
    if (type != 9) au.insert(au.end(), map.data + from, map.data + to);
  });
  gst_buffer_unmap(buffer, &map);
  if (au.empty()) return GST_FLOW_OK;

  GstClockTime t =
      GST_BUFFER_PTS_IS_VALID(buffer) ? GST_BUFFER_PTS(buffer) : GST_BUFFER_DTS(buffer);
  if (!GST_CLOCK_TIME_IS_VALID(t)) t = 0;
  GST_OBJECT_LOCK(self);
  if (self->origin < 0) {
    const gint64 first =
        self->start_time != 0 ? static_cast<gint64>(self->start_time) : g_get_real_time() * 1000;
    self->origin = first - static_cast<gint64>(t);
  }
  const gint64 time = self->origin + static_cast<gint64>(t);
  const int ch = self->ch;
  const bool sync_writes = self->sync_writes;
  GST_OBJECT_UNLOCK(self);

  std::vector<uint8_t> out =
      kelsst::make_frame_sei(ch, intra, static_cast<uint32_t>(au.size()), time);
  out.insert(out.end(), au.begin(), au.end());
  // Files are cut at intra frames, so that each plays from its start.
  if (intra && cut_due(self, out.size(), time) && !cut(self)) return GST_FLOW_ERROR;
  if (!write_frame(self, out, ch)) return GST_FLOW_ERROR;
  if (self->file_start < 0) self->file_start = time;
  GST_LOG_OBJECT(self, "%s frame of %zu bytes", intra ? "intra" : "inter", out.size());
  if (intra && sync_writes) fdatasync(self->fd);
  return GST_FLOW_OK;
}

}  // namespace

static void gst_kelsstrec_class_init(GstKelSstRecClass *klass) {
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSinkClass *sink_class = GST_BASE_SINK_CLASS(klass);
  object_class->set_property = set_property;
  object_class->get_property = get_property;
  object_class->finalize = finalize;
  const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
  g_object_class_install_property(
      object_class, PROP_LOCATION,
      g_param_spec_string("location", "Location", "The recordings folder, made if missing",
                          "recordings", flags));
  g_object_class_install_property(
      object_class, PROP_CH,
      g_param_spec_int("ch", "Channel", "The channel recorded; the file is <location>/chNN.h264", 0,
                       kelsst::kMaxChannels - 1, 0, flags));
  g_object_class_install_property(
      object_class, PROP_START_TIME,
      g_param_spec_uint64("start-time", "Start time",
                          "Recorder's wall-clock time (ns) of the first frame; 0: real time", 0,
                          G_MAXUINT64, 0, flags));
  g_object_class_install_property(
      object_class, PROP_SYNC_WRITES,
      g_param_spec_boolean("sync-writes", "Sync writes", "Flush each intra frame to the disk",
                           FALSE, flags));
  g_object_class_install_property(
      object_class, PROP_MAX_SIZE,
      g_param_spec_uint64("max-size", "Max size",
                          "Bytes after which a file is cut at an intra frame; 0: no limit", 0,
                          G_MAXUINT64, 0, flags));
  g_object_class_install_property(
      object_class, PROP_MAX_DURATION,
      g_param_spec_uint64("max-duration", "Max duration",
                          "Recorder time (ns) after which a file is cut at an intra frame; 0: "
                          "no limit",
                          0, G_MAXUINT64, 0, flags));
  gst_element_class_add_static_pad_template(element_class, &sink_template);
  gst_element_class_set_static_metadata(element_class, "Recorded channel writer", "Sink/File/Video",
                                        "Records one H.264 channel", "liborlo");
  sink_class->start = start;
  sink_class->stop = stop;
  sink_class->render = render;
  GST_DEBUG_CATEGORY_INIT(kelsstrec_debug, "kelsstrec", 0, "recorded channel writer");
}

static void gst_kelsstrec_init(GstKelSstRec *self) {
  self->location = g_strdup("recordings");
  self->fd = -1;
  self->origin = -1;
  gst_base_sink_set_sync(GST_BASE_SINK(self), FALSE);
}

GType kelsst::recorder_get_type() { return gst_kelsstrec_get_type(); }
