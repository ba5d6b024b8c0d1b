/*
 * mp4rec: MP4 recording library for network cameras.
 *
 * The one header a host includes. Every call is exported with C linkage under
 * its plain name; result codes are 0 on success and negative on failure
 * (0 success, 1 file still being made, -1 bad argument or failure, -2 card
 * I/O error, -4 busy, -5 out of frame number).
 */
#ifndef MP4REC_MP4REC_H
#define MP4REC_MP4REC_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>

#if defined(__GNUC__)
#define MP4REC_API __attribute__((visibility("default")))
#else
#define MP4REC_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Records                                                                   */
/* ------------------------------------------------------------------------ */

/* Stream parameters of one session; filled by the host before a pre-open. */
typedef struct mp4_stream_info {
  uint32_t record_duration;     /* planned file length in s; 0 means 600 (default 2000) */
  int32_t audio_timestamp_mode; /* 1: audio durations follow the frames' time stamps */
  int32_t video_prealloc;       /* 1: reserve the video tables as holes (fast head) */
  int32_t audio_prealloc;       /* 1: reserve the audio tables as holes (fast head) */
  int32_t reserved5;
  int32_t reserved6;
  int32_t movie_time_scale;  /* mvhd time scale (default 1000) */
  int32_t audio_sample_rate; /* Hz (default 16000) */
  int32_t video_frame_rate;  /* frames per second (default 30) */
  int32_t reserved10;
  int32_t buffer_hint; /* default 8192, not used by the library */
} mp4_stream_info;

typedef struct mp4_data_buffer mp4_data_buffer; /* frame staging + writer thread */
typedef struct mp4_buffer_node mp4_buffer_node; /* one storage block of a data buffer */
typedef struct mp4_handle mp4_handle;           /* per-file state of an H.264 or H.265 file */
typedef struct mp4_mjpeg_ctx mp4_mjpeg_ctx;     /* per-file state of an MJPEG file */

/* One recording target: mode, paths, stream info and data buffer. */
typedef struct mp4_session {
  int32_t record_mode; /* 0 or 1, both behave the same */
  mp4_stream_info *stream_info;
  mp4_data_buffer *data_buffer;
  char mp4_path[256];
  char mp2_tmp_path[256];
} mp4_session;

/* The recorder base: one per process. */
typedef struct mp4_base {
  struct mp4_session *mp4_session; /* "struct": the bare name would clash in C++ */
} mp4_base;

/* A prepared file: video format (1 MJPEG, 2 H.264, 3 H.265) and its writer context. */
typedef struct mp4_handler {
  uint32_t video_format;
  void *mp4_handle;
} mp4_handler;

/* One video sample: kind (0 non-IDR, 1 IDR or, for H.265, IRAP: a sync sample),
 * bytes in mdat, time stamp in ms. */
typedef struct videoNode {
  int32_t type;
  uint32_t size;
  uint32_t timeStamp;
  uint32_t reserved;
  struct videoNode *next;
} videoNode;

/* One audio frame: bytes in mdat, time stamp in ms. */
typedef struct audioNode {
  uint32_t size;
  uint32_t timeStamp;
  uint32_t reserved;
  struct audioNode *next;
} audioNode;

/* File positions at which the reserved index is patched while recording. */
typedef struct updatePos {
  uint32_t moovPos;
  uint32_t firstVideoTs;
  uint32_t firstAudioTs;
  uint32_t lastVideoTs;
  uint32_t lastAudioTs;
  uint32_t mvhdPos;
  uint32_t mvhdDurationPos;
  uint32_t *videoPos; /* 41 position slots of the video track */
  uint32_t *audioPos; /* 40 position slots of the audio track */
  uint32_t dataPos;   /* offset of the next batch of sample data */
} updatePos;

/* MSB-first bit writer with a 32-bit accumulator. */
typedef struct mp4_bit_writer {
  uint32_t bit_buf;
  int32_t bit_left;
  uint8_t *buf;
  uint8_t *buf_ptr;
  uint8_t *buf_end;
} mp4_bit_writer;

/* The pre-open block: the thread that prepares the next file, and its request. */
typedef struct mp4_pre_open_block {
  pthread_t thread;
  pthread_cond_t cond;
  pthread_mutex_t mutex;
  char *mp4_path;
  char *mp2_tmp_path;
  int32_t width;
  int32_t height;
  int32_t video_format;
  int32_t audio_format;
  int32_t ready;
} mp4_pre_open_block;

/* ------------------------------------------------------------------------ */
/* Logging: the host's log function. The library carries a weak fallback     */
/* that prints levels 3 and below to stderr; a host definition replaces it.  */
/* ------------------------------------------------------------------------ */
MP4REC_API void swLogWrite(int level, int module, const char *function, int line,
                           const char *format, ...);

/* ------------------------------------------------------------------------ */
/* Base, sessions, stream info                                               */
/* ------------------------------------------------------------------------ */
MP4REC_API mp4_base *mp4_base_new(void);
MP4REC_API int mp4_base_free(mp4_base *base);
MP4REC_API mp4_session *mp4_session_new(int record_mode, const char *mp4_path,
                                        const char *mp2_tmp_path);
MP4REC_API mp4_session *mp4_session_pop(mp4_base *base);
MP4REC_API int mp4_session_free(mp4_session *session);
MP4REC_API int mp4_write_register(mp4_base *base, void (*cb)(void *), void *user_data);
MP4REC_API mp4_stream_info *mp4_create_stream_info(void);

/* How the index of the session's H.264 files (index in front) reaches the
 * card, for every file of the session from the next node written on:
 *   mode 0: each batch's index update follows its bytes at once as plain
 *           writes. A killed process leaves a valid file up to the last
 *           batch; after a power cut the card may hold index words whose
 *           samples never landed (mp4rec repair mends such a file).
 *   mode 1 (default): at most once per interval_ms (0: 1000 ms) and at close,
 *           a commit syncs the batches written since the last one, then their
 *           index, in an order that keeps the file valid whatever part of the
 *           index writes reaches the card before power fails. A power cut
 *           loses at most what was written since the last commit (mp4rec
 *           repair recovers its whole video samples).
 * The finished file is the same in both modes. 0, or -1 for a null session
 * or a mode or interval out of range. */
MP4REC_API int mp4_set_durability(mp4_session *session, int mode, int interval_ms);

/* ------------------------------------------------------------------------ */
/* Pre-open thread                                                           */
/*                                                                           */
/* video_format: 1 JPEG pictures (MJPEG file, index at the end); 2 H.264 and  */
/* 3 H.265 (index reserved in front). audio_format: 1 8-bit PCM, 2 16-bit PCM */
/* (both encoded to MP2), 3 AAC (ADTS frames).                               */
/*                                                                           */
/* An H.265 file takes Annex B NAL units as an H.264 one does, through        */
/* mp4_write_video (or mp4_write_splite_sps_pps_i for a whole access unit):  */
/* the first VPS, SPS and PPS go into hvcC, IRAP pictures (BLA, IDR, CRA) are */
/* sync samples, SEI and other non-VCL units are dropped, and the slice       */
/* segments of one picture, each handed in on its own, make one sample. A     */
/* picture before all three parameter sets, a slice whose picture was not     */
/* taken, or parameter sets larger than the room reserved for them (512 bytes */
/* of hvcC) are refused with -1 and a log line; the file stays open.          */
/* ------------------------------------------------------------------------ */
MP4REC_API int mp4_write_pre_open(mp4_base *base, mp4_session *session, int width, int height,
                                  int video_format, int audio_format);
MP4REC_API int mp4_write_open_first(mp4_base *base, mp4_session *session, int width, int height,
                                    int video_format, int audio_format);
MP4REC_API int mp4_pre_open_start(mp4_session *session, char *mp4_path, char *mp2_tmp_path,
                                  int width, int height, int video_format, int audio_format);
MP4REC_API mp4_handler *mp4_pre_open_get(void);
MP4REC_API int mp4_pre_open_init(void);
MP4REC_API void *mp4_write_pre_open_thread(void *unused);

/* ------------------------------------------------------------------------ */
/* Recording front end. Whatever a frame call answered, mp4_write_close is    */
/* the next step; a -1 from it after a card error leaves the handler with    */
/* the library, which releases it when the session is freed (README).       */
/* ------------------------------------------------------------------------ */
MP4REC_API int mp4_write_open(mp4_base *base, char *mp4_path_out, char *mp2_tmp_path_out,
                              mp4_handler **handler_out);
MP4REC_API int mp4_write_prepare(mp4_session *session, mp4_handler *handler);
MP4REC_API int mp4_write_video(unsigned char *data, int length, int timestamp,
                               mp4_handler *handler);
MP4REC_API int mp4_write_audio(unsigned char *data, int length, int timestamp,
                               mp4_handler *handler);
MP4REC_API int mp4_write_close(mp4_handler *handler);
MP4REC_API int mp4_write_close_without_end(mp4_handler *handler);
MP4REC_API int free_mp4(void *mp4_handle);
MP4REC_API int mp4_write_splite_sps_pps_i(unsigned char *data, int length, int timestamp,
                                          mp4_handler *handler);

/* ------------------------------------------------------------------------ */
/* H.264 writer with the index in front                                      */
/* ------------------------------------------------------------------------ */
MP4REC_API mp4_handle *mp4_write_head_h264_index(const char *mp4_path, const char *mp2_tmp_path,
                                                 int width, int height, int audio_format,
                                                 mp4_stream_info *stream_info);
MP4REC_API int mp4_write_moov_init(FILE *file, mp4_handle *handle, updatePos *pos);
MP4REC_API void free_mp4_h264(mp4_handle *handle);
MP4REC_API int mp4_write_one_h264(unsigned char *data, int length, int timestamp,
                                  mp4_handle *handle);
MP4REC_API int mp4_write_audio_frame_realtime(mp4_handle *handle, unsigned char *data, int size,
                                              int timestamp);
MP4REC_API int mp4_write_moov_update_buffer(int track, void *head, void *tail, mp4_handle *handle,
                                            unsigned int batch_bytes);

/* ------------------------------------------------------------------------ */
/* Byte output (big-endian)                                                  */
/* ------------------------------------------------------------------------ */
MP4REC_API FILE *mp4_fopen(const char *path, const char *mode);
MP4REC_API int mp4_ftell(FILE *file);
MP4REC_API int mp4_fseek(FILE *file, int offset, int whence);
MP4REC_API int mp4_fclose(FILE *file);
MP4REC_API int mp4_put_byte(FILE *file, int value);
MP4REC_API int mp4_put_be16(FILE *file, unsigned int value);
MP4REC_API int mp4_put_be24(FILE *file, unsigned int value);
MP4REC_API int mp4_put_be32(FILE *file, unsigned int value);
MP4REC_API int mp4_put_tag(FILE *file, const char *tag);
MP4REC_API int mp4_put_buffer(FILE *file, const unsigned char *data, unsigned int len);
MP4REC_API int mp4_put_h264_buffer(FILE *file, const unsigned char *data, int len);

/* ------------------------------------------------------------------------ */
/* Data buffer and its writer thread                                         */
/* ------------------------------------------------------------------------ */
MP4REC_API mp4_data_buffer *mp4_write_data_buffer_create(int video_buf_size, int audio_buf_size);
MP4REC_API int mp4_write_data_buffer_init(mp4_data_buffer *data, FILE *video_file,
                                          FILE *audio_file);
MP4REC_API int mp4_write_data_buffer_delete(mp4_data_buffer *data);
MP4REC_API int DataBuffer_FreeVideoTrack(mp4_buffer_node *node);
MP4REC_API int DataBuffer_FreeAACTrack(mp4_buffer_node *node);
MP4REC_API int DataBuffer_QueuePush(mp4_buffer_node **queue, mp4_buffer_node *node);
MP4REC_API int mp4_write_data_buffer_write_video_index(mp4_data_buffer *data,
                                                       unsigned char *payload, videoNode *node,
                                                       mp4_handle *handle);
MP4REC_API int mp4_write_data_buffer_write_audio_index(mp4_data_buffer *data, unsigned char *bytes,
                                                       audioNode *node, mp4_handle *handle);
MP4REC_API int mp4_write_data_buffer_write_video(mp4_data_buffer *data, unsigned char *payload,
                                                 unsigned int size);
MP4REC_API int mp4_write_data_buffer_write_audio(mp4_data_buffer *data, unsigned char *bytes,
                                                 unsigned int size);
MP4REC_API mp4_buffer_node *DataBuffer_QueueTop(mp4_data_buffer *data, int media_type);
MP4REC_API void DataBuffer_NalistInsert(videoNode *vnode, mp4_buffer_node *node);
MP4REC_API void DataBuffer_AAClistInsert(audioNode *anode, mp4_buffer_node *node);
MP4REC_API void *DataBuffer_Proc(void *data);
MP4REC_API int DataBuffer_fwrite(mp4_buffer_node *node, FILE *file, int media_type);
MP4REC_API int mp4_write_data_buffer_finish(mp4_data_buffer *data);
MP4REC_API int mp4_set_data_buffer(mp4_handle *handle, mp4_data_buffer *data);
MP4REC_API int mp4_sync_data_buffer(mp4_handle *handle);
MP4REC_API int mp4_write_data_record_time_cb_register(mp4_data_buffer *data, void (*cb)(void *),
                                                      void *arg);

/* ------------------------------------------------------------------------ */
/* Audio: MP2/AAC stream readers, PCM to MP2                                 */
/* ------------------------------------------------------------------------ */
MP4REC_API int mp4_handle_mp2_head(FILE *file);
MP4REC_API int mp4_read_mp2_frame(FILE *file, unsigned char *buf, unsigned int size,
                                  unsigned int *frame_length);
MP4REC_API int mp4_handle_aac_head(FILE *file);
MP4REC_API int mp4_read_aac_frame(FILE *file, unsigned char *buf, unsigned int size,
                                  unsigned int *frame_length);
MP4REC_API void *MP2_encode_init(int sample_rate, int bitrate, int channels);
MP4REC_API int MP2_encode_frame(void *ctx, unsigned int *out_length, unsigned char *out,
                                int out_size, short *samples);
MP4REC_API void MP2_encode_close(void *ctx);
MP4REC_API void init_put_bits(mp4_bit_writer *writer, unsigned char *buf, int size);
MP4REC_API void put_bits(mp4_bit_writer *writer, int n, unsigned int value);
MP4REC_API void flush_put_bits(mp4_bit_writer *writer);
MP4REC_API int mp4_pcm_to_mp2(FILE *file, unsigned char *pcm, int len, void *ctx);
MP4REC_API int mp4_pcm_to_mp2_2(FILE *file, unsigned char *pcm, int len, void *ctx);

/* ------------------------------------------------------------------------ */
/* MJPEG writer                                                              */
/* ------------------------------------------------------------------------ */
MP4REC_API mp4_mjpeg_ctx *mp4_write_head_jpeg(const char *mp4_path, const char *mp2_tmp_path,
                                              int width, int height, unsigned int audio_format);
MP4REC_API int mp4_write_one_jpeg(unsigned char *data, int length, int timestamp,
                                  mp4_mjpeg_ctx *ctx);
MP4REC_API int mp4_write_pcm_jpeg(unsigned char *data, int length, mp4_mjpeg_ctx *ctx);
MP4REC_API int mp4_write_end_jpeg(mp4_mjpeg_ctx *ctx);

/* ------------------------------------------------------------------------ */
/* H.264 writer with the index at the end; index completion and abandon      */
/* ------------------------------------------------------------------------ */
MP4REC_API mp4_handle *mp4_write_head_h264(const char *mp4_path, const char *mp2_tmp_path,
                                           int width, int height, int audio_format);
MP4REC_API int mp4_write_one_aac(unsigned char *data, unsigned int length, int timestamp,
                                 mp4_handle *handle);
MP4REC_API int mp4_write_pcm_h264(unsigned char *data, int length, mp4_handle *handle);
MP4REC_API int mp4_write_end_h264(mp4_handle *handle);
MP4REC_API int mp4_append_mp2(mp4_handle *handle);
/* One H.264 NAL unit (with its 3- or 4-byte start code) into mdat of a handle
 * made by mp4_write_head_h264: a non-IDR or IDR picture is written as one
 * sample (4-byte big-endian length, then the NAL unit) and entered into the
 * handle's own list; the first SPS and PPS are kept for avcC; other units are
 * dropped. 0 on success, -1 for refused input (nothing written, the handle is
 * kept), -2 when the write failed (the end step then reports -1). */
MP4REC_API int mp4_write_video_node(unsigned char *data, int length, int timestamp,
                                    mp4_handle *handle);
MP4REC_API int mp4_write_add_index(mp4_handle *handle);
MP4REC_API int mp4_write_moov_update(int kind, int value, videoNode *node, mp4_handle *handle,
                                     int frame_size);
MP4REC_API int mp4_close_without_end(mp4_handle *handle);

/* ------------------------------------------------------------------------ */
/* Process-wide data                                                         */
/* ------------------------------------------------------------------------ */
MP4REC_API extern mp4_session *g_mp4_session;
MP4REC_API extern mp4_handler *g_mp4_handler;
MP4REC_API extern mp4_pre_open_block g_mp4_open;
MP4REC_API extern pthread_mutex_t mutex_mp4_open;
MP4REC_API extern int32_t g_pre_open_thread_status;
#ifndef MP4REC_INTERNAL_FLAGS
/* Set from the stream info each time an H.264 head is written. */
MP4REC_API extern int32_t videoPreallocFlag;
MP4REC_API extern int32_t audioPreallocFlag;
MP4REC_API extern int32_t audioTimeStampFlag;
#endif
/* MPEG audio: sample rates (MPEG-1) and bit rates [lsf][layer-1][index] in kbit/s. */
MP4REC_API extern const uint16_t mpa_freq_tab[3];
MP4REC_API extern const uint16_t mpa_bitrate_tab[2][3][15];
/* Layer II: floor(log2(i)) for 0..255 (0 for 0); half the analysis window;
 * subbands per allocation table; steps and bits per sample (negative: three
 * samples grouped in that many bits) of the 17 quantiser classes; the five
 * bit-allocation tables (per subband: the field width, then the class of each
 * non-zero allocation). */
MP4REC_API extern const uint8_t ff_log2_tab[256];
MP4REC_API extern const int32_t mpa_enwindow[257];
MP4REC_API extern const int sblimit_table[5];
MP4REC_API extern const int quant_steps[17];
MP4REC_API extern const int quant_bits[17];
MP4REC_API extern const unsigned char *const alloc_tables[5];

#ifdef __cplusplus
}
#endif

#endif /* MP4REC_MP4REC_H */
