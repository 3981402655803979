// A real PulseAudio daemon for sound tests: private to the test process,
// with one null sink whose monitor parec records.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

class PulseServer {
public:
    ~PulseServer();
    // Starts the daemon with its state and socket in dir (made if missing)
    // and points PULSE_SERVER at it. False when pulseaudio cannot run here.
    bool Start(const std::string& dir);
    // Ends it the hard way: the sound server going away under a player.
    void Kill();
    const std::string& Dir() const { return m_dir; }

private:
    std::string m_dir;
    pid_t m_pid = -1;
};

// Records the null sink's monitor (48 kHz, stereo, 16-bit) until Stop(),
// as a separate PulseAudio client.
class SinkRecorder {
public:
    ~SinkRecorder();
    bool Start();
    // Stops and returns the samples, interleaved left/right.
    std::vector<int16_t> Stop();
    // Samples taken so far, and how many of them carried sound.
    size_t Recorded() const;
    size_t Heard() const;

private:
    struct State;
    State* m_state = nullptr;
};

// Tone analysis of interleaved stereo at 48 kHz.
struct ChannelLevels {
    double left;
    double right;
};
// RMS of each channel over the loudest 400 ms window.
ChannelLevels LoudestRms(const std::vector<int16_t>& stereo);
// Relative strength of a frequency on one channel (Goertzel over the loudest
// window), as an RMS-like amplitude.
double ToneAmplitude(const std::vector<int16_t>& stereo, int channel, double hz);

// A microphone hearing a steady tone: the server's sine source (amplitude
// half of full scale), made the default source.
class ToneMicrophone {
public:
    ~ToneMicrophone();
    bool Start(const PulseServer& server, uint32_t hz);
    // Takes the source away, as pulling the microphone's plug does.
    void Unplug();

private:
    std::string m_dir;
    std::string m_module;
};

// A microphone that hears whatever the test plays into it: a private null
// sink (16 kHz mono) whose monitor is made the default source. Write() is
// paced by the server, so a loop of writes runs in real time.
class FedMicrophone {
public:
    ~FedMicrophone();
    bool Start(const PulseServer& server);
    bool Write(const int16_t* pcm, size_t samples);

private:
    std::string m_dir;
    std::string m_module;
    struct pa_simple* m_conn = nullptr;
};

// Amplitude of a frequency in mono PCM (Goertzel per 20 ms block, median).
double MonoToneAmplitude(const std::vector<int16_t>& pcm, uint32_t rate, double hz);
