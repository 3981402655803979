// The recorder's inner operations shared by its files: the API, division,
// the record thread and the source hooks.
#pragma once

#include <cstdint>

#include "record/record_port.h"

// Report type of the recorder's run messages; codes 270 (a file finished,
// its name in the text), 262 (the next file could not be opened) and 264
// (a write failed, disk full).
constexpr uint32_t kReportRecord = 16;
constexpr uint32_t kReportRecordFile = 270;
// Report type of snapshot outcomes: the code is the result (0 saved), the
// text the file name.
constexpr uint32_t kReportSnapshot = 17;

// Sources: hands one received packet or pushed chunk to the record queue
// while the port records (full queue: the port's buffer control decides;
// maxRetries 0 = retry while recording lasts).
void REC_QueuePacket(PortRecorder* rec, const uint8_t* data, uint32_t length, uint32_t bufferCtrl, uint32_t maxRetries);

// Starts a new file when the division check asks for it: 0, or 1 when the
// new file cannot be opened.
uint32_t Player_CreateNewFile(PortRecorder* rec);
uint32_t REC_DivisionCheck(PortRecorder* r);
uint32_t REC_OpenFirstFile(PortRecorder* rec);
// Closes the current file and gives it its final name (finalName:
// kRecordNameMax bytes). The close result: 0 or 264.
uint32_t REC_FinishFile(uint32_t port, PortRecorder* r, char* finalName);
void REC_NoteFinishedFile(PortRecorder* r, const char* name);
void REC_FreeFileList(PortRecorder* r);
void REC_SendReport(uint32_t port, uint32_t code, const char* text, const char* warnFormat);
void REC_SendReport(uint32_t port, uint32_t type, uint32_t code, const char* text);

// Frees the record queue and the packet assembly.
void REC_ReleaseQueue(PortRecorder& r);

// The record thread.
uint32_t REC_StartThread(PortRecorder* rec);
void REC_StopThread(PortRecorder* rec);

// Snapshot: the decode side hands each decoded picture over.
void Snap_OnPicture(PortRecorder* rec, const CODE_OUTPUT* picture);
// Asks for the next decoded picture in a file (format 0 JPEG, 1 BMP); a
// request not served yet is replaced. 0 or 2.
uint32_t Snap_Request(PortRecorder* rec, const char* fileName, uint32_t pictureFormat);
