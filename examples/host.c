/*
 * A minimal host: records an H.264 Annex B file and an ADTS AAC file into one
 * MP4 through the public calls, in the order a camera's recorder uses them.
 *
 *   host OUT.mp4 VIDEO.h264 AUDIO.aac [WIDTH HEIGHT FPS]   (default 320 240 15)
 */
#include <mp4rec/mp4rec.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static unsigned char *load(const char *path, long *size) {
  FILE *f = fopen(path, "rb");
  unsigned char *buf = NULL;
  if (f && fseek(f, 0, SEEK_END) == 0 && (*size = ftell(f)) > 0 && fseek(f, 0, SEEK_SET) == 0 &&
      (buf = malloc((size_t)*size)) != NULL && fread(buf, 1, (size_t)*size, f) != (size_t)*size) {
    free(buf);
    buf = NULL;
  }
  if (f) fclose(f);
  return buf;
}

/* Offset of the next Annex B start code (00 00 01 or 00 00 00 01) at or after `from`. */
static long next_nal(const unsigned char *b, long n, long from) {
  for (long i = from; i + 3 <= n; ++i)
    if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) return (i > from && b[i - 1] == 0) ? i - 1 : i;
  return n;
}

int main(int argc, char **argv) {
  if (argc != 4 && argc != 7) {
    fprintf(stderr, "usage: %s OUT.mp4 VIDEO.h264 AUDIO.aac [WIDTH HEIGHT FPS]\n", argv[0]);
    return 2;
  }
  const int width = argc == 7 ? atoi(argv[4]) : 320, height = argc == 7 ? atoi(argv[5]) : 240;
  const int fps = argc == 7 ? atoi(argv[6]) : 15;
  long vlen = 0, alen = 0;
  unsigned char *video = load(argv[2], &vlen), *audio = load(argv[3], &alen);
  if (!video || !audio) {
    fprintf(stderr, "cannot read the inputs\n");
    return 1;
  }

  /* The file is recorded under a temporary name: freeing a session deletes the
     files at its two paths, so the finished recording is moved away first. */
  char part[256], side[256];
  snprintf(part, sizeof part, "%s.part", argv[1]);
  snprintf(side, sizeof side, "%s.mp2", argv[1]);

  mp4_base *base = mp4_base_new(); /* starts the pre-open thread */
  mp4_session *session = base ? mp4_session_new(0, part, side) : NULL;
  if (!session) return 1;
  session->stream_info->record_duration = 60; /* sizes the index reserved in front */
  session->stream_info->video_frame_rate = fps;
  session->stream_info->audio_sample_rate = 16000;

  /* The pre-open thread writes the file's head; open takes the prepared file. */
  mp4_handler *handler = NULL;
  char mp4_path[256], mp2_path[256];
  int r = mp4_write_open_first(base, session, width, height, 2 /* H.264 */, 3 /* AAC */);
  if (r == 0) /* 1: the thread is still busy, look again */
    while ((r = mp4_write_open(base, mp4_path, mp2_path, &handler)) == 1) usleep(1000);
  if (r != 0) {
    fprintf(stderr, "open failed\n");
    mp4_base_free(base);
    return 1;
  }

  /* Frames in time order: the video NAL unit by NAL unit (each picture moves
     the clock on by one frame) and the AAC frames as they fall due. */
  long v = next_nal(video, vlen, 0), a = 0, pictures = 0, aac_frames = 0;
  while (r == 0 && (v < vlen || a + 7 <= alen)) {
    const int vts = (int)(pictures * 1000 / fps), ats = (int)(aac_frames * 1024 * 1000 / 16000);
    if (a + 7 <= alen && (v >= vlen || ats <= vts)) {
      const int len = ((audio[a + 3] & 3) << 11) | (audio[a + 4] << 3) | (audio[a + 5] >> 5);
      if (len < 7 || a + len > alen) break;
      r = mp4_write_audio(audio + a, len, ats, handler); /* one ADTS frame, header included */
      a += len;
      ++aac_frames;
    } else {
      const long end = next_nal(video, vlen, v + 3);
      const int type = video[v + (video[v + 2] == 1 ? 3 : 4)] & 0x1F;
      r = mp4_write_video(video + v, (int)(end - v), vts, handler); /* one NAL unit */
      if (type == 1 || type == 5) ++pictures;
      v = end;
    }
  }
  /* Whatever a frame call answered, the close is the next step: it drains the
     buffer and completes the index. After a card error it answers -1 and the
     file stays as it stood at its last batch; freeing the session releases
     what the library kept of it. Either way the recording is kept. */
  if (mp4_write_close(handler) != 0) r = -1;
  if (rename(part, argv[1]) != 0) r = -1;
  mp4_session_free(mp4_session_pop(base)); /* deletes the side file */
  mp4_base_free(base);
  free(video);
  free(audio);
  printf("%s: %ld pictures, %ld AAC frames, result %d\n", argv[1], pictures, aac_frames, r);
  return r == 0 ? 0 : 1;
}
