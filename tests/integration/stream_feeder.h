// Pushes a stream's chunks into a port over and over at 25 fps from its own
// thread, as a live source would, until destroyed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "korvalen.h"

class StreamFeeder {
public:
    StreamFeeder(uint32_t port, std::vector<std::vector<uint8_t>> chunks) : m_port(port), m_chunks(std::move(chunks))
    {
        m_thread = std::thread([this] {
            for (size_t i = 0; !m_stop; ++i) {
                const auto& c = m_chunks[i % m_chunks.size()];
                Korvalen_InputMediaData(m_port, c.data(), static_cast<uint32_t>(c.size()));
                if (c.size() != 24) { // a frame, not the 24-byte header announcing one
                    std::this_thread::sleep_for(std::chrono::milliseconds(40));
                }
            }
        });
    }
    ~StreamFeeder() { Stop(); }
    void Stop()
    {
        m_stop = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

private:
    uint32_t m_port;
    std::vector<std::vector<uint8_t>> m_chunks;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};
