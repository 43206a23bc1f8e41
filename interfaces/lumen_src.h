/* The live source element `lumensrc` (libgstlumensrc.so).
 *
 * Delivers list buffers of frame buffers for every open channel.  The
 * element's own choices are documented in platform/gst/lumensrc.
 */
#ifndef LUMEN_SRC_H
#define LUMEN_SRC_H

#include <gst/gst.h>

G_BEGIN_DECLS

#if defined(__GNUC__)
#define LUMEN_API __attribute__((visibility("default")))
#else
#define LUMEN_API
#endif

typedef void (*GstLumenSrcCallback)(gint ch, gpointer data, gint size, gpointer user_data);

LUMEN_API GType gst_lumen_src_get_type(void);

LUMEN_API gint gst_lumen_src_open_ch(GstElement *src, gint ch, gint flags);
LUMEN_API gint gst_lumen_src_close_ch(GstElement *src, gint ch, gint flags);
LUMEN_API gint gst_lumen_src_set_cmd_callback(GstElement *src, GstLumenSrcCallback cb,
                                              gpointer user_data);
LUMEN_API gint gst_lumen_src_set_motion_callback(GstElement *src, GstLumenSrcCallback cb,
                                                 gpointer user_data);
LUMEN_API gint gst_lumen_src_set_alarm_callback(GstElement *src, GstLumenSrcCallback cb,
                                                gpointer user_data);
LUMEN_API gint gst_lumen_src_set_handoff_callback(GstElement *src, GstLumenSrcCallback cb,
                                                  gpointer user_data);
LUMEN_API gint gst_lumen_src_set_header_x_callback(GstElement *src, GstLumenSrcCallback cb,
                                                   gpointer user_data);
LUMEN_API gint gst_lumen_src_set_onvif_meta_callback(GstElement *src, GstLumenSrcCallback cb,
                                                     gpointer user_data);
LUMEN_API gint gst_lumen_src_send_audio(GstElement *src, gint ch, gconstpointer data, gint size);
LUMEN_API gint gst_lumen_src_set_live_audio_ch(gint ch);
LUMEN_API gint gst_lumen_src_set_dev_mac(const gchar *mac, gint len);

G_END_DECLS

#endif /* LUMEN_SRC_H */
