// What the element tests share: the headers, and what every stand-in element
// owes its caller, checked alike for each: the properties that the pipes set
// by name, each starting at its declared default and holding what was written
// (an int both ends of its range), and a finalize that hands on to its
// parent's, which lets go of the data a caller attached to it.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "eventually.hh"
#include "kel_buffers.h"
#include "ref_ptr.hh"
#include "temp_dir.hh"

using testing_support::temp_dir;

// Values of `p` to write: an int's two ends, another type's value off its default.
inline std::vector<GValue> to_write(GParamSpec *p) {
  std::vector<GValue> out(G_IS_PARAM_SPEC_INT(p) ? 2 : 1, G_VALUE_INIT);
  for (GValue &v : out) g_value_init(&v, p->value_type);
  if (const auto *i = G_IS_PARAM_SPEC_INT(p) ? G_PARAM_SPEC_INT(p) : nullptr)
    g_value_set_int(&out[0], i->minimum), g_value_set_int(&out[1], i->maximum);
  else if (G_IS_PARAM_SPEC_UINT(p))
    g_value_set_uint(&out[0], G_PARAM_SPEC_UINT(p)->default_value + 1);
  else if (G_IS_PARAM_SPEC_INT64(p))
    g_value_set_int64(&out[0], G_PARAM_SPEC_INT64(p)->default_value + 1);
  else if (G_IS_PARAM_SPEC_UINT64(p))
    g_value_set_uint64(&out[0], G_PARAM_SPEC_UINT64(p)->default_value + 1);
  else if (G_IS_PARAM_SPEC_BOOLEAN(p))
    g_value_set_boolean(&out[0], !G_PARAM_SPEC_BOOLEAN(p)->default_value);
  else if (G_IS_PARAM_SPEC_STRING(p))
    g_value_set_string(&out[0], "elsewhere");
  else if (p->value_type == GST_TYPE_CAPS)
    gst_value_set_caps(&out[0], orlo::adopt(gst_caps_new_any()).get());
  else
    out.clear();
  return out;
}

// `own`: how many properties the element adds to its parent's; `skip`:
// request words that act rather than hold a value.
inline void expect_element_basics(const char *factory, guint own,
                                  const std::set<std::string> &skip = {}) {
  gst_init(nullptr, nullptr);
  auto e = orlo::adopt_floating(gst_element_factory_make(factory, nullptr));
  ASSERT_TRUE(e) << factory;
  GObject *o = G_OBJECT(e.get());
  guint n = 0, owned = 0;
  GParamSpec **props = g_object_class_list_properties(G_OBJECT_GET_CLASS(o), &n);
  for (GParamSpec *p : std::vector<GParamSpec *>(props, props + n)) {
    if (p->owner_type != G_OBJECT_TYPE(o) || (owned++, skip.count(p->name) != 0) ||
        (p->flags & G_PARAM_READABLE) == 0)
      continue;
    GValue back = G_VALUE_INIT;
    g_object_get_property(o, p->name, g_value_init(&back, p->value_type));
    EXPECT_TRUE(g_param_value_defaults(p, &back)) << factory << " " << p->name << " at first";
    for (GValue &v : (p->flags & G_PARAM_WRITABLE) != 0 ? to_write(p) : std::vector<GValue>{}) {
      g_object_set_property(o, p->name, &v);
      g_object_get_property(o, p->name, &back);
      EXPECT_EQ(g_param_values_cmp(p, &v, &back), 0) << factory << " " << p->name;
      g_value_unset(&v);
    }
    g_value_unset(&back);
  }
  g_free(props);
  EXPECT_EQ(owned, own) << factory;
  static bool released;
  released = false;
  g_object_set_data_full(o, "attached", &released,
                         [](gpointer r) { *static_cast<bool *>(r) = true; });
  e.reset();
  EXPECT_TRUE(released) << factory;
}
