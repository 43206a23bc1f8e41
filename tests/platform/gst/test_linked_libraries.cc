// The libraries linked beside the elements: the frame and list buffers
// (their bytes, their type tests, what a copy shares and what the list
// holds).
#include "element_checks.hh"

// A frame's bytes as its meta tells them, "none" for no frame.
static std::string bytes_of(GstBuffer *b) {
  const GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(b);
  return m != nullptr ? std::string(reinterpret_cast<const char *>(m->data), m->size) : "none";
}

TEST(KelBuffers, CopiesKeepTheirBytesAndListsHoldOneReferenceAMember) {
  gst_init(nullptr, nullptr);
  const std::string bytes("\1\2\3\4\5");
  auto frame = orlo::adopt(gst_kel_buddy_buffer_new_copy(bytes.data(), bytes.size()));
  // A copy is a frame over bytes of its own, left unmapped so that it is
  // written in place.
  auto copy = orlo::adopt(gst_buffer_copy_deep(frame.get()));
  EXPECT_TRUE(bytes_of(frame.get()) == bytes && bytes_of(copy.get()) == bytes);
  guint8 *at = gst_kel_buddy_buffer_get_meta(copy.get())->data;
  EXPECT_NE(at, gst_kel_buddy_buffer_get_meta(frame.get())->data);
  GstMapInfo map;
  ASSERT_TRUE(gst_buffer_map(copy.get(), &map, GST_MAP_WRITE));
  EXPECT_EQ(map.data, at);
  gst_buffer_unmap(copy.get(), &map);

  // The type tests tell the two apart, and nothing else passes.
  auto list = orlo::adopt(gst_kel_list_buffer_new());
  auto plain = orlo::adopt(gst_buffer_new());
  // A mini object that is no buffer, with junk where a buffer keeps its metas.
  std::vector<guint8> junk(1024, 0xa5);
  auto *no_buffer = reinterpret_cast<GstBuffer *>(junk.data());
  gst_mini_object_init(GST_MINI_OBJECT_CAST(no_buffer), 0, GST_TYPE_CAPS, nullptr, nullptr,
                       nullptr);
  EXPECT_EQ(gst_kel_list_buffer_get_meta(list.get())->list, nullptr);
  for (GstBuffer *b : {plain.get(), frame.get(), list.get(), no_buffer, (GstBuffer *)nullptr})
    EXPECT_EQ((gst_kel_list_buffer_get_meta(b) != nullptr) + 2 * (bytes_of(b) != "none"),
              (b == list.get()) + 2 * (b == frame.get()));

  // Members in order; a list copy shares them, each list with a reference.
  gst_kel_list_buffer_append(list.get(), gst_buffer_ref(frame.get()));
  gst_kel_list_buffer_append(list.get(), gst_buffer_ref(copy.get()));
  gst_kel_list_buffer_append(list.get(), nullptr);       // refused
  gst_kel_list_buffer_append(plain.get(), frame.get());  // refused, still ours
  auto list_copy = orlo::adopt(gst_buffer_copy(list.get()));
  GList *members = gst_kel_list_buffer_get_meta(list_copy.get())->list;
  ASSERT_EQ(g_list_length(members), 2u);
  EXPECT_TRUE(members->data == frame.get() && members->next->data == copy.get());
  EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(frame.get()), 3);
  list.reset();
  list_copy.reset();
  EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(frame.get()), 1);
}
