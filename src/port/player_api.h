// Inner functions behind the exported wrappers. Each returns 0 or an error
// code from korvalen_types.h; the wrapper takes the port lock and logs.
#pragma once

#include <cstdint>

#include "korvalen_types.h"

// Answer of an inner function whose feature has not landed yet: 259 for a
// port that is not allocated, otherwise 7.

// Live network stream.
uint32_t Player_OpenNetStream(uint32_t port, const char* localIp, uint16_t localPort, const char* remoteIp,
                              uint16_t remotePort, uint32_t protocol);
uint32_t Player_CloseNetStream(uint32_t port);
uint32_t Player_SetNatParam(uint32_t port, uint32_t natMode, const char* session);
uint32_t Player_GetLocalNetPort(uint32_t port, uint32_t* rtpPort, uint32_t* rtcpPort);
uint32_t Player_ReleaseLocalNetPort(uint32_t port);
uint32_t Player_GetLostPacketRate(uint32_t port, uint32_t* lost, uint32_t* total);
uint32_t Player_ResetLostPacketRate(uint32_t port);

// Pushed stream.
uint32_t Player_OpenInputStream(uint32_t port, const uint8_t* data, uint32_t length, uint32_t mode);
uint32_t Player_InputMediaData(uint32_t port, const uint8_t* data, uint32_t length);
uint32_t Player_CloseInputStream(uint32_t port);
uint32_t Player_SetPayloadType(uint32_t port, uint32_t count, const KORVALEN_PAYLOAD_TYPE* entries);
uint32_t Player_SetAudioInfo(uint32_t port, const KORVALEN_AUDIO_INFO* info);

// Media file.
uint32_t Player_OpenMediaFile(uint32_t port, const char* fileName);
uint32_t Player_CloseMediaFile(uint32_t port);
uint32_t Player_GetFileTime(uint32_t port, uint32_t* seconds);
uint32_t Player_CurPlayTime(uint32_t port, uint32_t* seconds);
uint32_t Player_GetPlayTimeEx(uint32_t port, KORVALEN_PLAY_TIME* playTime);
uint32_t Player_SetPlayedTime(uint32_t port, uint32_t seconds);
uint32_t Player_SpeedPlay(uint32_t port, uint32_t speed);
uint32_t Player_AFrameGo(uint32_t port);
uint32_t Player_AFrameBack(uint32_t port);
uint32_t Player_MP4GetRealTime(const char* fileName, uint32_t* realTime);
uint32_t Player_CheckMark(uint32_t port, const KORVALEN_MARK_QUERY* query, KORVALEN_MARK_INFO** marks);
uint32_t Player_CheckMarkCancel(uint32_t port);
uint32_t Player_FreeMarkInfo(KORVALEN_MARK_INFO* marks);

// HLS.
uint32_t Player_OpenHlsStream(uint32_t port);
uint32_t Player_CloseHlsStream(uint32_t port);
uint32_t Player_UpdatePlayInfo(uint32_t port, const KORVALEN_HLS_PLAY_INFO* info, uint32_t time);

// Play control and statistics.
uint32_t Player_StartPlay(uint32_t port, uint64_t window);
uint32_t Player_StopPlay(uint32_t port, uint64_t window);
uint32_t Player_PausePlay(uint32_t port, uint32_t pause);
uint32_t Player_PauseLive(uint32_t port, uint32_t pause);
uint32_t Player_SetPictureFluency(uint32_t port, uint32_t fluency);
uint32_t Player_SetOneFrameDecodeMode(uint32_t port);
uint32_t Player_GetFrameRate(uint32_t port, uint32_t* frameRate);
uint32_t Player_GetBitRate(uint32_t port, uint32_t* bitRate);
uint32_t Player_GetPictureSize(uint32_t port, uint32_t* width, uint32_t* height);
uint32_t Player_GetEncodeType(uint32_t port, uint32_t* videoType, uint32_t* audioType);

// Data callbacks.
uint32_t Player_SetSourceMediaDataCB(uint32_t port, KORVALEN_SOURCE_DATA_CB cb, uint32_t option, void* user);
uint32_t Player_SetParseVideoDataCB(uint32_t port, KORVALEN_PARSED_DATA_CB cb, uint32_t option, void* user);
uint32_t Player_SetParseAudioDataCB(uint32_t port, KORVALEN_PARSED_DATA_CB cb, uint32_t option, void* user);
uint32_t Player_SetDecodeVideoMediaDataCB(uint32_t port, KORVALEN_DECODED_VIDEO_CB cb, uint32_t option, void* user);
uint32_t Player_SetDecodeAudioMediaDataCB(uint32_t port, KORVALEN_DECODED_AUDIO_CB cb, uint32_t option, void* user);
uint32_t Player_SetParseVoiceDataCB(uint32_t port, KORVALEN_DECODED_AUDIO_CB cb, uint32_t option, void* user);
uint32_t Player_SetDrawMediaDataCB(uint32_t port, KORVALEN_DRAW_CB cb, void* user);
uint32_t Player_SetDrawMediaDataCBEx(uint32_t port, KORVALEN_DRAW_CB cb, void* user);

// Recording and snapshot.
uint32_t Player_SetRecordSize(uint32_t port, uint32_t sizeMb);
uint32_t Player_SetRecordDivByTime(uint32_t port, uint32_t minutes);
uint32_t Player_StartRecord(uint32_t port, const char* fileName, uint32_t recordType,
                            const KORVALEN_RECORD_PARAM* param);
uint32_t Player_StopRecord(uint32_t port);
uint32_t Player_StopRecordEx(uint32_t port, const KORVALEN_RECORD_PARAM* param);
uint32_t Player_GetRecordStatus(uint32_t port, uint32_t* recording);
uint32_t Player_GetRecordFiles(uint32_t port, uint32_t count, KORVALEN_RECORD_FILE* list);
uint32_t Player_GetRecordFileSize(uint32_t port, uint64_t* size);
uint32_t Player_SnatchOnce(uint32_t port, const char* fileName, uint32_t pictureFormat,
                           const KORVALEN_SNAP_PARAM* param);

// Sound and voice.
uint32_t Player_OpenSound(uint32_t port);
uint32_t Player_CloseSound(uint32_t port);
uint32_t Player_GetSoundVolume(uint32_t port, uint32_t* volume);
uint32_t Player_SetSoundVolume(uint32_t port, uint32_t volume);
uint32_t Player_SetSoundQuietStatus(uint32_t port, uint32_t quiet);
uint32_t Player_GetSoundQuietStatus(uint32_t port, uint32_t* quiet);
uint32_t Player_SetPlaySoundChannel(uint32_t port, uint32_t channel);
uint32_t Player_SetVoiceEncodeType(uint32_t port, uint32_t encodeType, uint32_t sampleRate, uint32_t channels);
uint32_t Player_OpenVoiceSvc(uint32_t port, uint32_t mode, uint32_t socket, const char* localIp, uint16_t localPort,
                             const char* remoteIp, uint16_t remotePort, uint32_t protocol);
uint32_t Player_CloseVoiceSvc(uint32_t port);
uint32_t Player_VoiceInputData(uint32_t port, const uint8_t* data, uint32_t length);
uint32_t Player_SetMicVolume(uint32_t port, uint32_t volume);
uint32_t Player_GetMicVolume(uint32_t port, uint32_t* volume);
uint32_t Player_SetMicQuietStatus(uint32_t port, uint32_t quiet);
uint32_t Player_GetMicQuietStatus(uint32_t port, uint32_t* quiet);

// Video output, overlays, fisheye and electronic PTZ.
uint32_t Player_SetRenderScale(uint32_t port, const KORVALEN_RECT* rect, uint32_t mode);
uint32_t Player_GetRenderScale(uint32_t port, KORVALEN_RECT* rect, uint32_t* mode);
uint32_t Player_SetDigitalZoom(uint32_t port, const KORVALEN_RECT* zoom, const KORVALEN_RECT* area);
uint32_t Player_SetAdjust(uint32_t port, uint32_t adjustType, const int32_t* value);
uint32_t Player_GetAdjust(uint32_t port, KORVALEN_ADJUST* adjust);
uint32_t Player_SetOSDStyle(uint32_t port, uint32_t style);
uint32_t Player_SetGpuDrawEnable(uint32_t port, uint32_t enable);
uint32_t Player_SetDeinterlaceMode(uint32_t port, uint32_t mode, uint32_t value);
uint32_t Player_SetIVAEnable(uint32_t port, uint32_t enable);
uint32_t Player_SetIVAShowParam(uint32_t showParam);
uint32_t Player_SetIVAShowParamEx(uint32_t port, uint32_t showParam, uint32_t mode);
// Writes the answer (1 fisheye, 0 not) to *answer.
uint32_t Player_IsFishEyeStream(uint32_t port, uint32_t* answer);
uint32_t Player_GetFishEyeParam(uint32_t port, KORVALEN_FISHEYE_STATE* state, KORVALEN_POINT* center, uint32_t* radius);
uint32_t Player_SetPtzAndFixMode(uint32_t port, uint32_t ptzMode, uint32_t fixMode);
uint32_t Player_GetPtzAndFixMode(uint32_t port, uint32_t* ptzMode, uint32_t* fixMode);
uint32_t Player_SetPtzDisplayMode(uint32_t port, uint32_t ptzMode);
uint32_t Player_SetPtzKeepAliveTime(uint32_t port, uint32_t seconds);
uint32_t Player_OnMouseMove(uint32_t port, uint32_t x, uint32_t y);
uint32_t Player_OnLButtonDown(uint32_t port, uint32_t x, uint32_t y);
uint32_t Player_OnLButtonUp(uint32_t port, uint32_t x, uint32_t y);
uint32_t Player_OnMouseWheel(uint32_t port, uint32_t flags, int16_t delta, uint32_t point);
