// Collects the MD5 of every picture a port's decoded-video callback hands
// over, in the form ffmpeg's framemd5 prints, for comparing with ffmpeg.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "../unit/codec_media.h"
#include "korvalen.h"
#include "wait_until.h"

struct DecodedPictures {
    std::mutex lock;
    std::vector<std::string> md5s;
    uint32_t width = 0;
    uint32_t height = 0;

    // The decoded-video callback; user = this.
    static void OnDecoded(uint32_t, const KORVALEN_DECODED_VIDEO* v, void* user, uint32_t, uint32_t)
    {
        auto* self = static_cast<DecodedPictures*>(user);
        CODE_OUTPUT out;
        for (int i = 0; i < 3; ++i) {
            out.planes[i] = v->planes[i];
            out.pitches[i] = v->line_sizes[i];
        }
        out.width = v->width;
        out.height = v->height;
        std::lock_guard<std::mutex> guard(self->lock);
        self->md5s.push_back(PictureMd5(out));
        self->width = v->width;
        self->height = v->height;
    }

    // Waits (bounded) for n pictures; returns how many came.
    size_t Wait(size_t n, int ms = 6000)
    {
        WaitUntil([&] { return Count() >= n; }, ms);
        return Count();
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> guard(lock);
        return md5s.size();
    }
    std::vector<std::string> Md5s()
    {
        std::lock_guard<std::mutex> guard(lock);
        return md5s;
    }
    void Clear()
    {
        std::lock_guard<std::mutex> guard(lock);
        md5s.clear();
    }
};
