/*
 * Korvalen media-player library: error codes, records and callback types.
 * Included by korvalen.h; plain C, fixed-width types.
 */
#ifndef KORVALEN_TYPES_H
#define KORVALEN_TYPES_H

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Error codes (the value stored in the calling thread's last error).        */
/* ------------------------------------------------------------------------ */
#define KORVALEN_OK                      0u
#define KORVALEN_ERR_INVALID_PARAM       2u    /* null pointer or argument out of range */
#define KORVALEN_ERR_NO_MEMORY           3u    /* allocation failed */
#define KORVALEN_ERR_SOCKET_CREATE       4u    /* socket creation failed */
#define KORVALEN_ERR_RECV                5u    /* receive failed */
#define KORVALEN_ERR_RECV_ZERO           6u    /* receive returned no data */
#define KORVALEN_ERR_NOT_SUPPORTED       7u    /* not supported / not valid for the port's source */
#define KORVALEN_ERR_THREAD_CREATE       8u    /* worker thread or its queue not created */
#define KORVALEN_ERR_SEND                11u   /* send failed */
#define KORVALEN_ERR_LOG                 14u   /* log module could not be set */
#define KORVALEN_ERR_PORT_NOT_ENOUGH     16u   /* decode channel limit reached, no broadcast slot */
#define KORVALEN_ERR_INIT                257u  /* initialisation failed */
#define KORVALEN_ERR_PORT                259u  /* port out of range or not allocated */
#define KORVALEN_ERR_BUFFER_FULL         260u  /* queue full */
#define KORVALEN_ERR_BUFFER_EMPTY        261u  /* queue holds nothing to take */
#define KORVALEN_ERR_FILE_OPEN           262u  /* file could not be opened */
#define KORVALEN_ERR_FILE_END            263u  /* end of file reached */
#define KORVALEN_ERR_DISK_FULL           264u  /* file write failed, disk full */
#define KORVALEN_ERR_FILE_READ           265u  /* file read or seek failed */
#define KORVALEN_ERR_AUDIO_DEVICE        266u  /* sound or microphone device missing or failing */
#define KORVALEN_ERR_FILE_INDEX          271u  /* record file index corrupt */
#define KORVALEN_ERR_FILE_NOT_OPEN       273u  /* file not open */
#define KORVALEN_ERR_FILE_READ_DONE      274u  /* file read completely */
#define KORVALEN_ERR_JUMP_OVER           275u  /* seek time beyond total time */
#define KORVALEN_ERR_PACKET_TOO_LONG     281u  /* stored packet longer than the output buffer */
#define KORVALEN_ERR_UNKNOWN_STREAM      524u  /* unknown stream, NAL or tag type */
#define KORVALEN_ERR_PACKET_LOST         525u  /* packet loss, or NAL offset beyond the packet */
#define KORVALEN_ERR_NEED_MORE_DATA      526u  /* parser holds no complete frame yet */
#define KORVALEN_ERR_DECODER_CREATE      527u  /* decoder creation failed */
#define KORVALEN_ERR_DECODE              528u  /* decode or colour conversion failed */
#define KORVALEN_ERR_FRAME_INCOMPLETE    529u  /* packet consumed, frame not complete */
#define KORVALEN_ERR_DISPLAY_NO_SLOT     530u  /* display wrapper has no free slot */
#define KORVALEN_ERR_DISPLAY_PARAM       531u  /* display wrapper given a null argument */
#define KORVALEN_ERR_OUTPUT_CREATE       532u  /* display or sound output could not be created */
#define KORVALEN_ERR_SOUND_BUFFER        533u  /* sound buffer missing */
#define KORVALEN_ERR_JPEG_ENCODER_CREATE 535u  /* JPEG encoder creation failed */
#define KORVALEN_ERR_CAPTURE_DEVICE      536u  /* capture device missing */
#define KORVALEN_ERR_RECORD_STARTED      537u  /* recording already started */
#define KORVALEN_ERR_DECODE_NO_OUTPUT    538u  /* frame consumed without a picture to show */
#define KORVALEN_ERR_AAC_DECODE          540u  /* AAC decoder failed */
#define KORVALEN_ERR_SURFACE_LOST        541u  /* display surface lost */
#define KORVALEN_ERR_IVA_DRAW            1025u /* overlay drawing failed */
#define KORVALEN_ERR_FISHEYE_INIT        1281u
#define KORVALEN_ERR_FISHEYE_STATE       1282u
#define KORVALEN_ERR_FISHEYE_PARAM       1283u
#define KORVALEN_ERR_FISHEYE_WORK        1284u
#define KORVALEN_ERR_PTZ                 1540u /* electronic PTZ failure */
#define KORVALEN_ERR_HLS_FIRST           1794u /* HLS failures span 1794..1808 */
#define KORVALEN_ERR_HLS_NOT_OPEN        1794u /* the port is not an HLS port */
#define KORVALEN_ERR_HLS_URL             1795u /* address empty, too long, or not http:// or https:// */
#define KORVALEN_ERR_HLS_CONNECT         1796u /* server not reachable, or the connection was lost */
#define KORVALEN_ERR_HLS_HTTP            1797u /* the server answered with an HTTP error (e.g. 404) */
#define KORVALEN_ERR_HLS_PLAYLIST        1798u /* not a playlist, or a malformed one */
#define KORVALEN_ERR_HLS_UNSUPPORTED     1799u /* encrypted or byte-range segments, no H.264/H.265 */
#define KORVALEN_ERR_HLS_SEGMENT         1800u /* a segment that cannot be read as MPEG-TS or fMP4 */
#define KORVALEN_ERR_HLS_CACHE           1801u /* the cache folder cannot be made or written */
#define KORVALEN_ERR_HLS_TIMEOUT         1802u /* the server stopped answering */
#define KORVALEN_ERR_HLS_TLS             1803u /* HTTPS connection could not be set up */
#define KORVALEN_ERR_HLS_END             1804u /* the playlist has been played to its end */
#define KORVALEN_ERR_HLS_TIME_NODE       1805u /* "time node not exist" */
#define KORVALEN_ERR_HLS_NO_CACHE_PATH   1806u /* "not set cache path" */
#define KORVALEN_ERR_HLS_STALLED         1807u /* a live playlist stopped growing */
#define KORVALEN_ERR_HLS_LAST            1808u

/* ------------------------------------------------------------------------ */
/* Shared enumerations.                                                      */
/* ------------------------------------------------------------------------ */

/* Codec types used throughout (stream parsing, RTP, decoders, SEI). */
#define KORVALEN_CODEC_G711U 0u
#define KORVALEN_CODEC_MP2   1u
#define KORVALEN_CODEC_AAC   2u
#define KORVALEN_CODEC_H264  3u
#define KORVALEN_CODEC_MJPEG 4u
#define KORVALEN_CODEC_G711A 5u
#define KORVALEN_CODEC_IVA   6u
#define KORVALEN_CODEC_PCM   7u
#define KORVALEN_CODEC_H265  8u
#define KORVALEN_CODEC_NONE  9u

/* Log levels. */
#define KORVALEN_LOG_OFF   0u
#define KORVALEN_LOG_DEBUG 1u
#define KORVALEN_LOG_INFO  2u
#define KORVALEN_LOG_WARN  3u
#define KORVALEN_LOG_ERROR 4u
#define KORVALEN_LOG_FATAL 5u

/* Transport protocols of Korvalen_OpenNetStream / Korvalen_OpenVoiceSvc. */
#define KORVALEN_PROTO_UDP        0u
#define KORVALEN_PROTO_TCP        1u
#define KORVALEN_PROTO_MULTICAST  2u
#define KORVALEN_PROTO_TCP_FRAMED 4u

/* ------------------------------------------------------------------------ */
/* Records.                                                                  */
/* ------------------------------------------------------------------------ */

/* One run message delivered by the report thread (276 bytes). */
typedef struct KORVALEN_RUN_MSG {
    uint32_t port;     /* port the message concerns */
    uint32_t type;     /* report type, e.g. 14 stream ended, 15 playback ended */
    uint32_t code;     /* report code, e.g. 515, 542, 263 */
    uint32_t value;    /* numeric payload, e.g. playback time in seconds */
    uint32_t data_len; /* bytes used in data[] */
    char data[256];    /* optional text payload, zero-terminated when used */
} KORVALEN_RUN_MSG;

/* Custom RTP payload-type entry (Korvalen_SetPayloadType). */
typedef struct KORVALEN_PAYLOAD_TYPE {
    uint32_t payload_type; /* RTP payload type, low byte used */
    uint32_t media_kind;   /* 0 video, non-zero audio */
    uint32_t stream_kind;  /* audio: 0 G.711u 1 MP2 2 AAC 3 G.711A 4 PCM; video: 2 H.264 3 JPEG 4 H.265 */
    uint32_t reserved;     /* copied as it is */
} KORVALEN_PAYLOAD_TYPE;

/* AAC configuration for RTP AAC streams (Korvalen_SetAudioInfo): the first
 * three bytes are the ADTS profile / sample-rate index / channel bytes. */
typedef struct KORVALEN_AUDIO_INFO {
    uint8_t config[3];
    uint8_t reserved[13];
} KORVALEN_AUDIO_INFO;

/* Rectangle in pixels, or in ten-thousandths of the picture for digital zoom. */
typedef struct KORVALEN_RECT {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
} KORVALEN_RECT;

/* Picture adjustment (Korvalen_SetAdjust / Korvalen_GetAdjust). Brightness,
 * contrast and saturation are percentages (100 = unchanged), hue is 0..20
 * with 10 = unchanged. */
#define KORVALEN_ADJUST_BRIGHTNESS 0u
#define KORVALEN_ADJUST_CONTRAST   1u
#define KORVALEN_ADJUST_SATURATION 2u
#define KORVALEN_ADJUST_HUE        3u
typedef struct KORVALEN_ADJUST {
    int32_t brightness;
    int32_t contrast;
    int32_t saturation;
    int32_t hue;
} KORVALEN_ADJUST;

/* Extended play time of a file or HLS port (Korvalen_GetPlayTimeEx). */
typedef struct KORVALEN_PLAY_TIME {
    uint32_t played_seconds; /* position from the start of the file */
    uint32_t total_seconds;  /* length of the file, 0 when unknown */
    uint64_t timestamp_90k;  /* time stamp of the last frame, 90 kHz ticks */
    uint64_t utc_ms;         /* wall-clock time of the last frame when known, else 0 */
} KORVALEN_PLAY_TIME;

/* One mark found in a recorded file (Korvalen_CheckMark). */
typedef struct KORVALEN_MARK_INFO {
    uint32_t time_seconds; /* position of the marked frame */
    uint32_t mark_type;
    uint64_t timestamp_90k;
    struct KORVALEN_MARK_INFO* next; /* list owned by the library, freed by Korvalen_FreeMarkInfo */
} KORVALEN_MARK_INFO;

/* Check parameters of Korvalen_CheckMark. */
typedef struct KORVALEN_MARK_QUERY {
    uint32_t start_seconds;
    uint32_t end_seconds; /* 0 = to the end of the file */
} KORVALEN_MARK_QUERY;

/* HLS play information (Korvalen_UpdatePlayInfo). Where playback starts:
 * start_time when it is not 0 (needs a playlist with program date-times),
 * else the time argument of Korvalen_UpdatePlayInfo, in seconds from the
 * playlist's first segment; 0 on a live playlist means the live edge. */
typedef struct KORVALEN_HLS_PLAY_INFO {
    char url[1024];      /* playlist address, http:// or https://, zero-terminated */
    uint32_t start_time; /* seconds since 1970 of the wanted start, 0 = use the time argument */
    uint32_t end_time;   /* seconds since 1970 where playback stops, 0 = open end */
    uint32_t flags;      /* bit 0: paused */
    uint32_t reserved;
} KORVALEN_HLS_PLAY_INFO;

/* Views of Korvalen_SetPtzAndFixMode / Korvalen_SetPtzDisplayMode. */
#define KORVALEN_PTZ_OFF          0u /* the picture as decoded */
#define KORVALEN_PTZ_EPTZ         1u /* electronic PTZ: drag a rectangle to zoom */
#define KORVALEN_PTZ_ORIGINAL     2u /* fisheye circle */
#define KORVALEN_PTZ_PANORAMA_360 3u /* one strip all round (ceiling, desk) */
#define KORVALEN_PTZ_PANORAMA_180 4u /* two half strips (ceiling, desk), one (wall) */
#define KORVALEN_PTZ_QUAD         5u /* four PTZ views */
#define KORVALEN_PTZ_ONE          6u /* one PTZ view */
/* Mounts (fix modes) of a fisheye camera. */
#define KORVALEN_FIX_CEILING 0u
#define KORVALEN_FIX_WALL    1u
#define KORVALEN_FIX_DESK    2u

/* Fisheye state (Korvalen_GetFishEyeParam). */
typedef struct KORVALEN_FISHEYE_STATE {
    uint32_t mount_mode;   /* KORVALEN_FIX_*: 0 ceiling, 1 wall, 2 desk */
    uint32_t correct_mode; /* current view, KORVALEN_PTZ_* */
    uint32_t width;        /* picture size the parameters refer to */
    uint32_t height;
} KORVALEN_FISHEYE_STATE;

typedef struct KORVALEN_POINT {
    int32_t x;
    int32_t y;
} KORVALEN_POINT;

/* GPU decode options (Korvalen_AbleGpuDecodeEx). */
typedef struct KORVALEN_GPU_OPTIONS {
    uint32_t device_kind;  /* 0 any, 1 VAAPI, 2 CUDA */
    uint32_t max_sessions; /* 0 = no limit */
    char device[128];      /* e.g. "/dev/dri/renderD128", empty = default */
} KORVALEN_GPU_OPTIONS;

/* Record-start options (Korvalen_StartRecord, fourth argument, may be null). */
typedef struct KORVALEN_RECORD_PARAM {
    uint32_t start_time; /* caller's start time, seconds since 1970 (timed naming) */
    uint32_t end_time;   /* caller's end time */
} KORVALEN_RECORD_PARAM;

/* One finished record file (Korvalen_GetRecordFiles fills an array of them). */
typedef struct KORVALEN_RECORD_FILE {
    char name[256];
} KORVALEN_RECORD_FILE;

/* Snapshot options (Korvalen_SnatchOnce, fourth argument, may be null). */
typedef struct KORVALEN_SNAP_PARAM {
    uint32_t quality; /* JPEG quality 1..100, 0 = default */
    uint32_t reserved;
} KORVALEN_SNAP_PARAM;

/* Decoded video record handed to the decoded-video callback. */
typedef struct KORVALEN_DECODED_VIDEO {
    uint8_t* planes[4];
    uint32_t line_sizes[4];
    uint32_t height;
    uint32_t width;
    uint32_t reserved;
    uint32_t frame_rate;
    uint64_t time_value; /* 90 kHz ticks of the frame */
} KORVALEN_DECODED_VIDEO;

/* Decoded audio record handed to the decoded-audio and parsed-voice callbacks. */
typedef struct KORVALEN_DECODED_AUDIO {
    uint8_t* data;
    uint32_t length;
    uint32_t sample_rate_code; /* 0 8000, 1 16000, 2 44100, 3 11025, 6 other */
    uint32_t reserved[4];
} KORVALEN_DECODED_AUDIO;

/* Parsed (still encoded) frame handed to the parsed-video and parsed-audio callbacks. */
typedef struct KORVALEN_PARSED_FRAME {
    const uint8_t* data;
    uint32_t length;
    uint32_t codec_type; /* KORVALEN_CODEC_* */
    uint32_t frame_type; /* video: 0 key, 1 other, 0xFFFFFFFF JPEG; audio: sub-type */
    uint32_t audio_format[2];
    uint64_t timestamp; /* 90 kHz ticks */
} KORVALEN_PARSED_FRAME;

/* The picture handed to the draw callback, about to be shown (BGRA). */
typedef struct KORVALEN_DRAW_SURFACE {
    uint8_t* pixels; /* 32-bit BGRA, may be painted on */
    uint32_t stride; /* bytes per line */
    uint32_t width;
    uint32_t height;
    uint64_t window; /* target window, 0 when headless */
} KORVALEN_DRAW_SURFACE;

/* ------------------------------------------------------------------------ */
/* Callbacks. Return values are ignored.                                    */
/* ------------------------------------------------------------------------ */

/* Log sink: (level, module id 358, reserved 0, source file, line, text). */
typedef void (*KORVALEN_LOG_CB)(uint32_t level, uint32_t module, uint32_t reserved, const char* source, uint32_t line,
                                const char* text);
/* Run message from the report thread. */
typedef void (*KORVALEN_RUN_MSG_CB)(const KORVALEN_RUN_MSG* msg);
/* Source data: (port, data, length, stream type 0 TS / 3 RTP, user, 0). */
typedef void (*KORVALEN_SOURCE_DATA_CB)(uint32_t port, const uint8_t* data, uint32_t length, uint32_t stream_type,
                                        void* user, uint32_t reserved);
/* Parsed video or audio frame. */
typedef void (*KORVALEN_PARSED_DATA_CB)(uint32_t port, const KORVALEN_PARSED_FRAME* frame, void* user,
                                        uint32_t reserved);
/* Decoded video: (port, record, user, 0, 0). */
typedef void (*KORVALEN_DECODED_VIDEO_CB)(uint32_t port, const KORVALEN_DECODED_VIDEO* video, void* user,
                                          uint32_t reserved1, uint32_t reserved2);
/* Decoded audio and parsed voice: (port, record, user, 0). */
typedef void (*KORVALEN_DECODED_AUDIO_CB)(uint32_t port, const KORVALEN_DECODED_AUDIO* audio, void* user,
                                          uint32_t reserved);
/* Draw hook, called on the render thread after the picture is composed. */
typedef void (*KORVALEN_DRAW_CB)(uint32_t port, const KORVALEN_DRAW_SURFACE* surface, void* user, uint32_t reserved);

#ifdef __cplusplus
}
#endif

#endif /* KORVALEN_TYPES_H */
