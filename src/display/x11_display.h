// CBaseDisplay on an X11 window: each picture is converted to BGRA at the
// size it is shown, painted over by the overlays, and put with MIT-SHM.
#pragma once

#include <string>

#include "display/display_base.h"
#include "display/display_convert.h"

struct X11Conn;
typedef struct _XImage XImage;

class CX11Display final : public CBaseDisplay {
public:
    explicit CX11Display(const char* displayName) : m_displayName(displayName ? displayName : "") {}
    ~CX11Display() override;
    uint32_t Init(uint64_t window) override;
    uint32_t DisplayPic(const DISP_PICTURE& pic, const DISP_SETTINGS& settings) override;
    uint32_t RenderPicture(const DISP_PICTURE& pic) override;
    void ReleaseSurfaces() override;
    void SetDrawCallback(KORVALEN_DRAW_CB cb, void* user) override
    {
        m_draw = cb;
        m_drawUser = user;
    }
    bool IsOffscreen() const override { return false; }
    DISP_RECT ShownRect() const override { return m_lastDest; }
    uint32_t BlitFailures() const override { return m_blitFailures; }

private:
    // An image pictures are converted into. Two take turns: one is
    // converted into while the server may still copy the other.
    struct Image {
        XImage* image = nullptr;
        void* shm = nullptr;    // XShmSegmentInfo when the image is shared
        bool reading = false;   // the server may still read it: its put is not complete
        unsigned long from = 0; // serials of the requests of its last put
        unsigned long to = 0;
    };

    uint32_t Show(const DISP_PICTURE& pic, const DISP_SETTINGS& settings);
    uint32_t TakeNews(DISP_RECT* client); // with the connection locked
    void Drain();                         // with the connection locked
    uint32_t Convert(Image& img, const DISP_PICTURE& pic, const DISP_RECT& src, const int32_t adjust[4],
                     const DISP_RECT& dest);
    uint32_t Put(Image& img, const DISP_RECT& client, const DISP_RECT& dest);
    uint32_t SurfaceLostLocked();
    bool EnsureImage(Image& img, int w, int h); // with the connection locked
    void FreeImageLocked(Image& img);
    void FreeImagesLocked();

    std::string m_displayName;
    X11Conn* m_conn = nullptr;
    unsigned long m_window = 0;
    void* m_visual = nullptr; // the window's Visual, for new images
    int m_depth = 0;
    void* m_gc = nullptr;
    Image m_images[2];
    unsigned m_turn = 0; // the image the next picture goes into
    DISP_RECT m_client;  // the window's size, followed through its events
    bool m_gone = false; // the window was destroyed
    int m_putError = 0;  // first error of a finished put, not reported yet
    DispConverter m_convert;
    DISP_RECT m_lastDest;
    bool m_repaint = true; // the bars around the picture need painting
    uint32_t m_blitFailures = 0;
    uint32_t m_oddSizeCount = 0;
    KORVALEN_DRAW_CB m_draw = nullptr;
    void* m_drawUser = nullptr;
};
