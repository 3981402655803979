/*
 * Korvalen media-player library for video-surveillance clients.
 *
 * The caller initialises the library once (Korvalen_Init), allocates numbered
 * player channels called ports (0..255, Korvalen_AllocPort), opens one source
 * on each port and plays it. Every function with a result returns 1 for
 * success and 0 for failure; the reason is in the calling thread's last error
 * (Korvalen_GetLastError), which a success does not clear. Exceptions are
 * named in each function's comment.
 *
 * Per-port calls share one frame: port numbers of 256 or more fail with
 * KORVALEN_ERR_PORT (259), null output pointers with KORVALEN_ERR_INVALID_PARAM
 * (2), and calls on one port are serialised by that port's lock (re-entrant
 * for the same thread). A port that is not allocated gives 259.
 */
#ifndef KORVALEN_H
#define KORVALEN_H

#include "korvalen_types.h"

#if defined(KORVALEN_BUILDING)
#define KORVALEN_API __attribute__((visibility("default")))
#else
#define KORVALEN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================== */
/* Library and logging                                                      */
/* ======================================================================== */

/** Initialise the library; nested calls only count. The first call creates the
 *  heap, opens the log files (unless a log callback is set), the port table and
 *  the report thread. Errors: 257 when start-up fails. */
KORVALEN_API int32_t Korvalen_Init(void);
/** Undo one Korvalen_Init; the last one frees every port and all resources. */
KORVALEN_API void Korvalen_Cleanup(void);
/** Packed version: bits 0-7 major, 8-15 minor, 16-31 build (0x002E0502). */
KORVALEN_API uint32_t Korvalen_GetVersion(void);
/** The calling thread's last error code. */
KORVALEN_API uint32_t Korvalen_GetLastError(void);
/** The current init counter. */
KORVALEN_API int32_t Korvalen_GetInitCount(void);
/** Set the file log's level (1 DEBUG..5 FATAL, 0 off), folder (null = default
 *  $HOME/PlayerFile/) and size in KB (capped at 1.5 MiB). Fails before init,
 *  for size 0, and for level 0 (file logging is then off). No last error. */
KORVALEN_API int32_t Korvalen_SetLog(uint32_t level, const char* log_path, uint32_t log_size_kb);
/** Send every log line to the caller instead of the files. Must come before
 *  Korvalen_Init to keep the files from being opened. Null removes the
 *  callback: lines go to the files again (opened by the next first init). */
KORVALEN_API int32_t Korvalen_SetWriteLogCB(KORVALEN_LOG_CB callback);
/** Write a caller line through the library's log sink. The format's arguments
 *  come as a pointer to the caller's va_list (null: the format is written as
 *  it stands). Always returns 1. */
KORVALEN_API int32_t Korvalen_WriteRmLogInfo(uint32_t level, const char* source, uint32_t line, const char* format,
                                             va_list* args);
/** Set the run-message callback (null clears it); called by the report thread
 *  every 40 ms with the queued messages. */
KORVALEN_API int32_t Korvalen_SetPlayerRunMsgCB(KORVALEN_RUN_MSG_CB callback);
/** Limit the number of ports playing a source at once (<= 256). Larger values
 *  store 256 and fail with 2. */
KORVALEN_API int32_t Korvalen_SetMaxDecChlNum(uint32_t max_channels);
/** Process virtual size in MiB into *size_mib; when bytes_out is not null the
 *  exact byte count is stored there too. */
KORVALEN_API int32_t Korvalen_GetTotalVirtualSize(uint32_t* size_mib, uint64_t* bytes_out);

/* ======================================================================== */
/* Ports and packet buffering                                               */
/* ======================================================================== */

/** Allocate the next free port round-robin. Errors: 2 null output, 259 all
 *  256 ports taken, 3 no memory. */
KORVALEN_API int32_t Korvalen_AllocPort(uint32_t* port);
/** Free a port, closing whatever source it has. */
KORVALEN_API void Korvalen_FreePort(uint32_t port);
/** Packet-buffer slot count (clamped to 1000..5000) and delay render time in ms
 *  (at most 10000) for the next source opened on the port. */
KORVALEN_API int32_t Korvalen_SetPacketBuffer(uint32_t port, uint32_t buffer_size, uint32_t delay_render_ms);
/** 1: a full packet buffer makes the source wait and retry; 0: drop. Other
 *  values fail with 2. */
KORVALEN_API int32_t Korvalen_SetBufferCtrl(uint32_t port, uint32_t buffer_ctrl);
/** Frames waiting in the port's packet buffer and the occupied slot count;
 *  outputs untouched when the port has no packet buffer. */
KORVALEN_API int32_t Korvalen_GetPacketQueueStart(uint32_t port, uint32_t* frame_count, uint32_t* occupied);

/* ======================================================================== */
/* Sources                                                                  */
/* ======================================================================== */

/** Open a live RTP stream: protocol 0 UDP, 1 TCP ("$" framed),
 *  2 multicast, 4 TCP framed without carry-over. Errors: 16 channel limit. */
KORVALEN_API int32_t Korvalen_OpenNetStream(uint32_t port, const char* local_ip, uint16_t local_port,
                                            const char* remote_ip, uint16_t remote_port, uint32_t protocol);
/** Close the live stream and everything opened with it. */
KORVALEN_API int32_t Korvalen_CloseNetStream(uint32_t port);
/** NAT packet: mode 1 sends it once on the stream's TCP connection; identifier (16 bytes used). */
KORVALEN_API int32_t Korvalen_SetNatParam(uint32_t port, uint32_t nat_mode, const char* nat_session);
/** The local RTP port the live stream's socket is bound to, and RTCP's
 *  (the next one). Errors: 7 when the port has no live stream. */
KORVALEN_API int32_t Korvalen_GetLocalNetPort(uint32_t port, uint32_t* rtp_port, uint32_t* rtcp_port);
/** Nothing is reserved beyond the stream's own socket (freed at close);
 *  succeeds for an allocated port. */
KORVALEN_API int32_t Korvalen_ReleaseLocalNetPort(uint32_t port);
/** TCP connect time-out in seconds for every later connect (default 4).
 *  Always returns 1. */
KORVALEN_API int32_t Korvalen_SetTcpOutTime(uint32_t seconds);
/** Packets lost and received over the last five seconds. */
KORVALEN_API int32_t Korvalen_GetLostPacketRate(uint32_t port, uint32_t* lost_count, uint32_t* total_count);
/** Clear the lost-packet count. */
KORVALEN_API int32_t Korvalen_ResetLostPacketRate(uint32_t port);
/** Open a pushed stream; header/header_len is a first chunk
 *  pushed at once. buffer_size is accepted and not used. Errors: 16. */
KORVALEN_API int32_t Korvalen_OpenInputStream(uint32_t port, const uint8_t* header, uint32_t header_len,
                                              uint32_t buffer_size);
/** Push one chunk (RTP packet, TS, FLV, JPEG, raw H.264/H.265,
 *  "RdHd" header). Errors: 260 buffer full, 524 unknown stream. */
KORVALEN_API int32_t Korvalen_InputMediaData(uint32_t port, const uint8_t* data, uint32_t length);
/** Close the pushed stream. */
KORVALEN_API int32_t Korvalen_CloseInputStream(uint32_t port);
/** Custom RTP payload table (count clamped to 2). A null array
 *  returns 2 without setting the last error. */
KORVALEN_API int32_t Korvalen_SetPayloadType(uint32_t port, uint32_t count, const KORVALEN_PAYLOAD_TYPE* entries);
/** AAC configuration for RTP AAC streams. */
KORVALEN_API int32_t Korvalen_SetAudioInfo(uint32_t port, const KORVALEN_AUDIO_INFO* info);
/** Open a local MP4 or MPEG-TS file, recognised by content (opens paused;
 *  AVI and the own record format answer 7 for now). Errors: 7, 16, 262. */
KORVALEN_API int32_t Korvalen_OpenMediaFile(uint32_t port, const char* file_name);
/** Close the file and stop everything on the port. */
KORVALEN_API int32_t Korvalen_CloseMediaFile(uint32_t port);
/** Make the port an HLS player (start it with Korvalen_UpdatePlayInfo). */
KORVALEN_API int32_t Korvalen_OpenHlsStream(uint32_t port);
/** Stop and close the HLS stream. */
KORVALEN_API int32_t Korvalen_CloseHlsStream(uint32_t port);
/** Set the HLS playlist and where to play from: info->start_time, else time
 *  (seconds from the first segment; 0 on a live playlist is the live edge).
 *  Calling it again seeks. 1806 without a cache folder, 1805 when no segment
 *  holds the time; later fetch problems arrive as run messages of type 16. */
KORVALEN_API int32_t Korvalen_UpdatePlayInfo(uint32_t port, const KORVALEN_HLS_PLAY_INFO* info, uint32_t time);
/** Folder of the HLS segment cache (process-wide), made when missing; an
 *  empty text removes the folder setting (HLS playback then answers 1806). */
KORVALEN_API int32_t Korvalen_SetCachePath(const char* path);
/** Segment cache limit in MB (process-wide, default 500); the least
 *  recently used segments go first. */
KORVALEN_API int32_t Korvalen_SetMaxCache(uint32_t size_mb);
/** Empty the segment cache. */
KORVALEN_API int32_t Korvalen_CleanCache(void);

/* ======================================================================== */
/* Play control and statistics                                              */
/* ======================================================================== */

/** Start rendering into the X11 window (0, or no X server: headless). */
KORVALEN_API int32_t Korvalen_StartPlay(uint32_t port, uint64_t window);
/** Stop rendering. */
KORVALEN_API int32_t Korvalen_StopPlay(uint32_t port, uint64_t window);
/** Pause (1) or resume (other) a file or HLS port; 7 otherwise. */
KORVALEN_API int32_t Korvalen_PausePlay(uint32_t port, uint32_t pause);
/** Pause (1) or resume a live port's display. */
KORVALEN_API int32_t Korvalen_PauseLive(uint32_t port, uint32_t pause);
/** Fluency: 0 off, 1 normal, 3 low delay, 4 smooth (2 = off). */
KORVALEN_API int32_t Korvalen_SetPictureFluency(uint32_t port, uint32_t fluency);
/** Decode each frame as soon as it arrives (low-delay decoder). */
KORVALEN_API int32_t Korvalen_SetOneFrameDecodeMode(uint32_t port);
/** Switch GPU decoding for ports allocated later; returns the switch's new
 *  state for enable 1 (0 when this machine has no GPU decoder), else 1. */
KORVALEN_API int32_t Korvalen_AbleGpuDecode(uint32_t enable);
/** As Korvalen_AbleGpuDecode, first opening the device the options name
 *  (kind and path; null options keep the device probed at start-up) and
 *  limiting how many ports decode on it at once (0 = no limit; the others
 *  decode in software). The last two pointers receive the kind of the device
 *  in use (0 none, 1 VAAPI, 2 CUDA) and the session limit; they may be null.
 *  GPU decoding is used by ports that show their pictures in a window.
 *  Fails with 7 when enable is 1 and there is no GPU decoder. */
KORVALEN_API int32_t Korvalen_AbleGpuDecodeEx(uint32_t enable, const KORVALEN_GPU_OPTIONS* options,
                                              uint32_t* device_kind, uint32_t* sessions);
/** Frame rate of the stream. */
KORVALEN_API int32_t Korvalen_GetFrameRate(uint32_t port, uint32_t* frame_rate);
/** Received bit rate, bytes per second. */
KORVALEN_API int32_t Korvalen_GetBitRate(uint32_t port, uint32_t* bit_rate);
/** Size of the decoded picture. */
KORVALEN_API int32_t Korvalen_GetPictureSize(uint32_t port, uint32_t* width, uint32_t* height);
/** Video and audio codec types of the stream (KORVALEN_CODEC_*). */
KORVALEN_API int32_t Korvalen_GetEncodeType(uint32_t port, uint32_t* video_type, uint32_t* audio_type);
/** Does nothing; returns 1. The window's own size is followed instead. */
KORVALEN_API int32_t Korvalen_SetWindowSize(uint32_t port, const KORVALEN_RECT* size);
/** Length of the open file in seconds; 7 when not a file port. */
KORVALEN_API int32_t Korvalen_GetFileTime(uint32_t port, uint32_t* seconds);
/** Current play position in seconds. */
KORVALEN_API int32_t Korvalen_GetPlayTime(uint32_t port, uint32_t* seconds);
/** Current play position with frame time stamps (file ports). */
KORVALEN_API int32_t Korvalen_GetPlayTimeEx(uint32_t port, KORVALEN_PLAY_TIME* play_time);
/** Seek a file port to the given second (the key frame at or after it);
 *  275 beyond the file's length. */
KORVALEN_API int32_t Korvalen_SetPlayedTime(uint32_t port, uint32_t seconds);
/** Speed code: the frame interval times 4 (0), 2 (1), 1 (2), 1/2 (3), ...;
 *  7..11 and 14..21, 26..35 play key frames only (2 for unknown codes). */
KORVALEN_API int32_t Korvalen_SpeedPlay(uint32_t port, uint32_t speed);
/** Show exactly one further frame of a file port, then pause. */
KORVALEN_API int32_t Korvalen_AFrameGo(uint32_t port);
/** Step one frame back on an MP4 file port (7 for MPEG-TS). */
KORVALEN_API int32_t Korvalen_AFrameBack(uint32_t port);
/** Real (wall-clock) start time of an MP4 recording, seconds since 1970, from
 *  its movie header. */
KORVALEN_API int32_t Korvalen_MP4GetRealTime(const char* file_name, uint32_t* real_time);
/** List the marked frames of the open file in the query's range; the
 *  list (null when none) is freed with Korvalen_FreeMarkInfo. */
KORVALEN_API int32_t Korvalen_CheckMark(uint32_t port, const KORVALEN_MARK_QUERY* query, KORVALEN_MARK_INFO** marks);
/** Stop a running mark check (always reports failure 7). */
KORVALEN_API int32_t Korvalen_CheckMarkCancel(uint32_t port);
/** Free a mark list returned by Korvalen_CheckMark. */
KORVALEN_API int32_t Korvalen_FreeMarkInfo(KORVALEN_MARK_INFO* marks);

/* ======================================================================== */
/* Data callbacks: each takes effect at the next frame; null disables.      */
/* ======================================================================== */

/** Each received chunk; option 0 stops feeding the decoder. */
KORVALEN_API int32_t Korvalen_SetSourceMediaDataCB(uint32_t port, KORVALEN_SOURCE_DATA_CB callback, uint32_t option,
                                                   void* user);
/** Each parsed video frame. */
KORVALEN_API int32_t Korvalen_SetParseVideoDataCB(uint32_t port, KORVALEN_PARSED_DATA_CB callback, uint32_t option,
                                                  void* user);
/** Each parsed audio frame. */
KORVALEN_API int32_t Korvalen_SetParseAudioDataCB(uint32_t port, KORVALEN_PARSED_DATA_CB callback, uint32_t option,
                                                  void* user);
/** Each decoded picture. */
KORVALEN_API int32_t Korvalen_SetDecodeVideoMediaDataCB(uint32_t port, KORVALEN_DECODED_VIDEO_CB callback,
                                                        uint32_t option, void* user);
/** Each decoded audio block. */
KORVALEN_API int32_t Korvalen_SetDecodeAudioMediaDataCB(uint32_t port, KORVALEN_DECODED_AUDIO_CB callback,
                                                        uint32_t option, void* user);
/** Decoded sound, also handed to the voice callback. */
KORVALEN_API int32_t Korvalen_SetParseVoiceDataCB(uint32_t port, KORVALEN_DECODED_AUDIO_CB callback, uint32_t option,
                                                  void* user);
/** Draw hook after each picture (render thread). */
KORVALEN_API int32_t Korvalen_SetDrawMediaDataCB(uint32_t port, KORVALEN_DRAW_CB callback, void* user);
/** Draw hook handed straight to the port's display. */
KORVALEN_API int32_t Korvalen_SetDrawMediaDataCBEx(uint32_t port, KORVALEN_DRAW_CB callback, void* user);

/* ======================================================================== */
/* Recording and snapshot                                                   */
/* ======================================================================== */

/** Divide recordings every size_mb MiB (10..4000). */
KORVALEN_API int32_t Korvalen_SetRecordSize(uint32_t port, uint32_t size_mb);
/** Divide recordings every minutes (1..60). */
KORVALEN_API int32_t Korvalen_SetRecordDivByTime(uint32_t port, uint32_t minutes);
/** Start recording to file_name (without extension) in the
 *  record type's container; param may be null. Errors: 537 already recording. */
KORVALEN_API int32_t Korvalen_StartRecord(uint32_t port, const char* file_name, uint32_t record_type,
                                          const KORVALEN_RECORD_PARAM* param);
/** Stop recording and close the file. */
KORVALEN_API int32_t Korvalen_StopRecord(uint32_t port);
/** Stop recording with the caller's end time (param may be null). */
KORVALEN_API int32_t Korvalen_StopRecordEx(uint32_t port, const KORVALEN_RECORD_PARAM* param);
/** 1 while recording, else 0. */
KORVALEN_API int32_t Korvalen_GetRecordStatus(uint32_t port, uint32_t* recording);
/** Copy up to count finished file names into list. */
KORVALEN_API int32_t Korvalen_GetRecordFiles(uint32_t port, uint32_t count, KORVALEN_RECORD_FILE* list);
/** Bytes written to the current record file. */
KORVALEN_API int32_t Korvalen_GetRecordFileSize(uint32_t port, uint64_t* size);
/** Save the next picture as JPEG (format 0) or BMP (1). */
KORVALEN_API int32_t Korvalen_SnatchOnce(uint32_t port, const char* file_name, uint32_t picture_format,
                                         const KORVALEN_SNAP_PARAM* param);

/* ======================================================================== */
/* Audio and voice                                                          */
/* ======================================================================== */

/** Play the port's sound from its next audio frame (without a sound server the
 *  frame logs it and sound stays off). */
KORVALEN_API int32_t Korvalen_OpenSound(uint32_t port);
/** Stop the port's sound. */
KORVALEN_API int32_t Korvalen_CloseSound(uint32_t port);
/** Volume 0..255 (read back from the sound server while playing). */
KORVALEN_API int32_t Korvalen_GetSoundVolume(uint32_t port, uint32_t* volume);
/** Volume 0..255 (256 and more: full). */
KORVALEN_API int32_t Korvalen_SetSoundVolume(uint32_t port, uint32_t volume);
/** Mute (1) or unmute (0). */
KORVALEN_API int32_t Korvalen_SetSoundQuietStatus(uint32_t port, uint32_t quiet);
/** Mute state. */
KORVALEN_API int32_t Korvalen_GetSoundQuietStatus(uint32_t port, uint32_t* quiet);
/** Channel: 0 left, 1 right, 2 none, other both (a new port: 3). */
KORVALEN_API int32_t Korvalen_SetPlaySoundChannel(uint32_t port, uint32_t channel);
/** Voice encoding: type 0 G.711u, 2 AAC, 4 PCM; rate index 0 8 kHz, 1 16 kHz;
 *  channels 1. Errors: 7. */
KORVALEN_API int32_t Korvalen_SetVoiceEncodeType(uint32_t port, uint32_t encode_type, uint32_t sample_rate,
                                                 uint32_t channels);
/** Open voice talk or broadcast on an idle port: mode 0 broadcast fed by the
 *  caller, 1 broadcast from the microphone, 2 talk fed by the caller, 3 talk
 *  from the microphone; the caller's TCP socket (0 = none: the port connects
 *  and plays the device's stream itself), addresses and protocol (0 UDP, 1
 *  TCP; voice leaves only over TCP). Errors: 2, 7, 8, 16, 266. */
KORVALEN_API int32_t Korvalen_OpenVoiceSvc(uint32_t port, uint32_t mode, uint32_t socket, const char* local_ip,
                                           uint16_t local_port, const char* remote_ip, uint16_t remote_port,
                                           uint32_t protocol);
/** Close the voice service. */
KORVALEN_API int32_t Korvalen_CloseVoiceSvc(uint32_t port);
/** Send caller PCM as voice (encoded with the port's encoder, sent as codec
 *  7 packets); reserved may be null. */
KORVALEN_API int32_t Korvalen_VoiceInputData(uint32_t port, const uint8_t* data, uint32_t length, void* reserved);
/** Microphone volume 0..255 (the default source's volume; 0 also stops the
 *  port's capture delivering). */
KORVALEN_API int32_t Korvalen_SetMicVolume(uint32_t port, uint32_t volume);
/** Microphone volume 0..255, read from the default source. */
KORVALEN_API int32_t Korvalen_GetMicVolume(uint32_t port, uint32_t* volume);
/** Mute (1) or unmute the microphone. */
KORVALEN_API int32_t Korvalen_SetMicQuietStatus(uint32_t port, uint32_t quiet);
/** Microphone mute state. */
KORVALEN_API int32_t Korvalen_GetMicQuietStatus(uint32_t port, uint32_t* quiet);

/* ======================================================================== */
/* Video output, overlays, fisheye and electronic PTZ                       */
/* ======================================================================== */

/** Render scale mode (0 fill, 1 keep aspect, 2 native) for the
 *  window area rect (null = the whole window). */
KORVALEN_API int32_t Korvalen_SetRenderScale(uint32_t port, const KORVALEN_RECT* rect, uint32_t mode);
/** Current render area and mode. */
KORVALEN_API int32_t Korvalen_GetRenderScale(uint32_t port, KORVALEN_RECT* rect, uint32_t* mode);
/** Digital zoom rectangle in ten-thousandths of the picture
 *  (null disables); the window area it applies to (null = whole window). */
KORVALEN_API int32_t Korvalen_SetDigitalZoom(uint32_t port, const KORVALEN_RECT* zoom, const KORVALEN_RECT* area);
/** Set one adjustment (KORVALEN_ADJUST_*) to *value. */
KORVALEN_API int32_t Korvalen_SetAdjust(uint32_t port, uint32_t adjust_type, const int32_t* value);
/** All four adjustments. */
KORVALEN_API int32_t Korvalen_GetAdjust(uint32_t port, KORVALEN_ADJUST* adjust);
/** Overlay style 0..2; 3 or more fails with 2. */
KORVALEN_API int32_t Korvalen_SetOSDStyle(uint32_t port, uint32_t style);
/** GPU presentation on (1) or off (0). */
KORVALEN_API int32_t Korvalen_SetGpuDrawEnable(uint32_t port, uint32_t enable);
/** Deinterlace mode (1 line doubling) and its companion value. */
KORVALEN_API int32_t Korvalen_SetDeinterlaceMode(uint32_t port, uint32_t mode, uint32_t value);
/** Analytics overlay on (1) or off (0, the default). */
KORVALEN_API int32_t Korvalen_SetIVAEnable(uint32_t port, uint32_t enable);
/** Process-wide overlay flags (bit 1 untracked targets and tracking, bit 2
 *  tracked targets; default 6). */
KORVALEN_API int32_t Korvalen_SetIVAShowParam(uint32_t show_param);
/** Per-port overlay flags; mode 1 makes per-port flags decide (process-wide). */
KORVALEN_API int32_t Korvalen_SetIVAShowParamEx(uint32_t port, uint32_t show_param, uint32_t mode);
/** 1 for a fisheye port (lens parameters from the stream, or a fisheye view
 *  chosen by the caller), else 0. */
KORVALEN_API int32_t Korvalen_IsFishEyeStream(uint32_t port);
/** Fisheye state (may be null), lens centre and radius in picture pixels;
 *  1282 for a port that is not a fisheye port. */
KORVALEN_API int32_t Korvalen_GetFishEyeParam(uint32_t port, KORVALEN_FISHEYE_STATE* state, KORVALEN_POINT* center,
                                              uint32_t* radius);
/** Does nothing; always returns 0. */
KORVALEN_API int32_t Korvalen_FaceCorrectFunc(void* arg1, void* arg2, void* arg3);
/** View (KORVALEN_PTZ_*) and mount (KORVALEN_FIX_*). A fisheye view marks
 *  the port as a fisheye port; without lens parameters from the stream the
 *  circle inscribed in the picture is taken. 2 out of range, 1283 for a
 *  360-degree panorama on a wall. */
KORVALEN_API int32_t Korvalen_SetPtzAndFixMode(uint32_t port, uint32_t ptz_mode, uint32_t fix_mode);
/** Current view and mount. */
KORVALEN_API int32_t Korvalen_GetPtzAndFixMode(uint32_t port, uint32_t* ptz_mode, uint32_t* fix_mode);
/** Change the view, keeping the mount; fisheye views need a fisheye port
 *  (1282). */
KORVALEN_API int32_t Korvalen_SetPtzDisplayMode(uint32_t port, uint32_t ptz_mode);
/** Seconds the electronic-PTZ overview stays after the last mouse action
 *  (0, the default: always shown). */
KORVALEN_API int32_t Korvalen_SetPtzKeepAliveTime(uint32_t port, uint32_t seconds);
/** Mouse moved to (x, y) in window pixels: with the left button held it
 *  drags the view (the picture follows the pointer) or, in electronic PTZ,
 *  draws the rectangle to zoom into. 1540 when no view takes the mouse. */
KORVALEN_API int32_t Korvalen_OnMouseMove(uint32_t port, uint32_t x, uint32_t y);
/** Left button pressed at (x, y). */
KORVALEN_API int32_t Korvalen_OnLButtonDown(uint32_t port, uint32_t x, uint32_t y);
/** Left button released at (x, y). */
KORVALEN_API int32_t Korvalen_OnLButtonUp(uint32_t port, uint32_t x, uint32_t y);
/** Wheel turned by delta (120 per notch, positive zooms in) with the pointer
 *  at point = x | (y << 16) in window pixels; flags are the held buttons. */
KORVALEN_API int32_t Korvalen_OnMouseWheel(uint32_t port, uint32_t flags, int16_t delta, uint32_t point);

#ifdef __cplusplus
}
#endif

#endif /* KORVALEN_H */
