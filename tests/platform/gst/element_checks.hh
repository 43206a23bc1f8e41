// What every stand-in element owes its caller, checked alike for each: the
// properties that the pipes set by name, each reading back what was written,
// and a finalize that hands on to its parent's, which lets go of the data a
// caller attached to it.
#pragma once

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "ref_ptr.hh"

// A value of `p` other than its default; false for a type not handled here.
inline bool off_default(GParamSpec *p, GValue *v) {
  g_value_init(v, p->value_type);
  if (const auto *i = G_IS_PARAM_SPEC_INT(p) ? G_PARAM_SPEC_INT(p) : nullptr)
    g_value_set_int(v, i->minimum != i->default_value ? i->minimum : i->maximum);
  else if (G_IS_PARAM_SPEC_UINT(p))
    g_value_set_uint(v, G_PARAM_SPEC_UINT(p)->default_value + 1);
  else if (G_IS_PARAM_SPEC_INT64(p))
    g_value_set_int64(v, G_PARAM_SPEC_INT64(p)->default_value + 1);
  else if (G_IS_PARAM_SPEC_UINT64(p))
    g_value_set_uint64(v, G_PARAM_SPEC_UINT64(p)->default_value + 1);
  else if (G_IS_PARAM_SPEC_BOOLEAN(p))
    g_value_set_boolean(v, !G_PARAM_SPEC_BOOLEAN(p)->default_value);
  else if (G_IS_PARAM_SPEC_STRING(p))
    g_value_set_string(v, "elsewhere");
  return G_VALUE_HOLDS(v, p->value_type) && !g_param_value_defaults(p, v);
}

// `own`: how many properties the element adds to its parent's; `skip`:
// request words that act rather than hold a value.
inline void expect_element_basics(const char *factory, guint own,
                                  const std::set<std::string> &skip = {}) {
  gst_init(nullptr, nullptr);
  auto e = orlo::adopt_floating(gst_element_factory_make(factory, nullptr));
  ASSERT_TRUE(e) << factory;
  guint n = 0, owned = 0;
  GParamSpec **props = g_object_class_list_properties(G_OBJECT_GET_CLASS(e.get()), &n);
  for (GParamSpec *p : std::vector<GParamSpec *>(props, props + n)) {
    GValue v = G_VALUE_INIT, back = G_VALUE_INIT;
    owned += p->owner_type == G_OBJECT_TYPE(e.get());
    if (p->owner_type != G_OBJECT_TYPE(e.get()) || skip.count(p->name) != 0 ||
        (p->flags & G_PARAM_READWRITE) != G_PARAM_READWRITE || !off_default(p, &v)) {
      if (G_IS_VALUE(&v)) g_value_unset(&v);
      continue;
    }
    g_object_set_property(G_OBJECT(e.get()), p->name, &v);
    g_object_get_property(G_OBJECT(e.get()), p->name, g_value_init(&back, p->value_type));
    EXPECT_EQ(g_param_values_cmp(p, &v, &back), 0) << factory << " " << p->name;
    g_value_unset(&v), g_value_unset(&back);
  }
  g_free(props);
  EXPECT_EQ(owned, own) << factory;
  static bool released;
  released = false;
  g_object_set_data_full(G_OBJECT(e.get()), "attached", &released,
                         [](gpointer r) { *static_cast<bool *>(r) = true; });
  e.reset();
  EXPECT_TRUE(released) << factory;
}
