/* The device's plug-and-detect routine, imported beside the stream elements
 * and called once by the bring-up routine. */
#ifndef PLUG_AND_DETECT_H
#define PLUG_AND_DETECT_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
__attribute__((visibility("default")))
#endif
int plug_and_detect_init(void *pipe, int count);

#ifdef __cplusplus
}
#endif

#endif /* PLUG_AND_DETECT_H */
