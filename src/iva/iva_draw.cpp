#include "iva/iva_draw.h"

#include <cairo.h>
#include <cmath>
#include <cstdlib>

#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr double kLineWidth = 3.0;
constexpr uint32_t kFullOpacity = 100;
constexpr int32_t kTenThousand = 10000;
constexpr int32_t kPercent = 100;
constexpr uint32_t kLabelStyleA = 4;
constexpr uint32_t kLabelStyleB = 5;

const uint32_t kColors[] = {0x000000, 0x0A0A0A, 0xF0F0F0, 0xFFFFFF, 0x000000, 0x0000FF, 0x00FF00,
                            0xFF0000, 0x0080FF, 0xFF0080, 0xFF00FF, 0x00FFFF, 0x004080, 0x808080};

struct DevicePoint {
    double x, y;
};

DevicePoint Map(const IVA_CANVAS* c, IVA_POINT p)
{
    return {(p.x - c->originX) * c->scaleX, (p.y - c->originY) * c->scaleY};
}

// A coordinate in ten-thousandths (or percent) of the drawing rectangle.
IVA_POINT ToRect(const DISP_RECT& r, int32_t vx, int32_t vy, int32_t unit)
{
    return {r.left + vx * (r.right - r.left) / unit, r.top + vy * (r.bottom - r.top) / unit};
}

// Colour codes are 0x00BBGGRR values: red in the low byte.
void SetColor(cairo_t* cr, uint32_t color, uint32_t opacity)
{
    const double a = (opacity > kFullOpacity ? kFullOpacity : opacity) / 100.0;
    cairo_set_source_rgba(cr, (color & 0xFF) / 255.0, ((color >> 8) & 0xFF) / 255.0, ((color >> 16) & 0xFF) / 255.0, a);
}

uint32_t Status(cairo_t* cr)
{
    return static_cast<uint32_t>(cairo_status(cr));
}

void Path(const IVA_CANVAS* c, const IVA_POINT* pts, uint32_t n, bool close)
{
    cairo_new_path(c->cr);
    for (uint32_t i = 0; i < n; ++i) {
        DevicePoint d = Map(c, pts[i]);
        if (i == 0) {
            cairo_move_to(c->cr, d.x, d.y);
        } else {
            cairo_line_to(c->cr, d.x, d.y);
        }
    }
    if (close) {
        cairo_close_path(c->cr);
    }
}

uint32_t DrawBrokenLine(IVA_CANVAS* c, const IVA_POINT* pts, uint32_t n, uint32_t color, uint32_t opacity)
{
    if (n < 2) {
        return 0;
    }
    Path(c, pts, n, false);
    SetColor(c->cr, color, opacity);
    cairo_set_line_width(c->cr, kLineWidth);
    cairo_stroke(c->cr);
    return Status(c->cr);
}

uint32_t DrawLine(IVA_CANVAS* c, IVA_POINT a, IVA_POINT b, uint32_t color)
{
    IVA_POINT pts[2] = {a, b};
    return DrawBrokenLine(c, pts, 2, color, kFullOpacity);
}

uint32_t DrawPolygon(IVA_CANVAS* c, const IVA_POINT* pts, uint32_t n, uint32_t lineColor, uint32_t fillColor,
                     uint32_t lineOpacity, uint32_t fillOpacity)
{
    if (n < 2) {
        return 0;
    }
    Path(c, pts, n, true);
    if (fillOpacity > 0) {
        SetColor(c->cr, fillColor, fillOpacity);
        cairo_fill_preserve(c->cr);
    }
    SetColor(c->cr, lineColor, lineOpacity);
    cairo_set_line_width(c->cr, kLineWidth);
    cairo_stroke(c->cr);
    return Status(c->cr);
}

uint32_t DrawRect(IVA_CANVAS* c, IVA_POINT lt, IVA_POINT rb, uint32_t color)
{
    DevicePoint a = Map(c, lt), b = Map(c, rb);
    cairo_new_path(c->cr);
    cairo_rectangle(c->cr, a.x, a.y, b.x - a.x, b.y - a.y);
    SetColor(c->cr, color, kFullOpacity);
    cairo_set_line_width(c->cr, kLineWidth);
    cairo_stroke(c->cr);
    return Status(c->cr);
}

// The label of a rule: arrows across the middle of its first segment showing
// the crossing direction it watches (style 0 one way, style 1 both ways),
// sized by the OSD style.
uint32_t DrawLabelLine(IVA_CANVAS* c, IVA_POINT a, IVA_POINT b, uint32_t style, uint32_t color)
{
    DevicePoint p = Map(c, a), q = Map(c, b);
    const double dx = q.x - p.x, dy = q.y - p.y;
    const double len = std::sqrt(dx * dx + dy * dy);
    if (len < 1.0) {
        return 0;
    }
    const double size = 10.0 + 5.0 * c->osdStyle;
    const double nx = -dy / len, ny = dx / len; // the normal: the watched side
    const double mx = (p.x + q.x) / 2, my = (p.y + q.y) / 2;
    SetColor(c->cr, color, kFullOpacity);
    cairo_set_line_width(c->cr, 2.0);
    for (int side = 0; side < (style == 1 ? 2 : 1); ++side) {
        const double s = side == 0 ? 1.0 : -1.0;
        const double tx = mx + s * nx * size * 2, ty = my + s * ny * size * 2;
        cairo_new_path(c->cr);
        cairo_move_to(c->cr, mx, my);
        cairo_line_to(c->cr, tx, ty);
        cairo_stroke(c->cr);
        // Arrow head.
        const double hx = dx / len * size * 0.5, hy = dy / len * size * 0.5;
        cairo_new_path(c->cr);
        cairo_move_to(c->cr, tx, ty);
        cairo_line_to(c->cr, tx - s * nx * size * 0.8 + hx, ty - s * ny * size * 0.8 + hy);
        cairo_line_to(c->cr, tx - s * nx * size * 0.8 - hx, ty - s * ny * size * 0.8 - hy);
        cairo_close_path(c->cr);
        cairo_fill(c->cr);
    }
    return Status(c->cr) == 0 ? 0 : 1;
}

uint32_t DrawRulesCurrent(const IVA_RECORD& rules, IVA_CANVAS* c)
{
    const uint32_t need = rules.count * IVA_RULE_ENTRY;
    if (rules.length < need) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DrawRule fail, ulIVARuleBufLen(%d) worse, ulNeedLen(%d)", rules.length, need);
        return KORVALEN_ERR_IVA_DRAW;
    }
    for (uint32_t i = 0; i < rules.count; ++i) {
        const IVA_RULE r = IVA_GetRule(rules, i);
        if (r.pointCount > IVA_RULE_POINTS) {
            continue;
        }
        IVA_POINT pts[IVA_RULE_POINTS];
        for (uint32_t p = 0; p < r.pointCount; ++p) {
            pts[p] = ToRect(c->drawRect, r.points[p][0], r.points[p][1], kTenThousand);
        }
        const uint32_t line = IVA_ColorOf(r.lineColor);
        const bool label = r.labelType == kLabelStyleA || r.labelType == kLabelStyleB;
        const uint32_t style = r.labelType == kLabelStyleA ? 0 : 1;
        if (r.kind == 1) {
            uint32_t err = DrawPolygon(c, pts, r.pointCount, line, IVA_ColorOf(r.fillColor), r.lineValue, r.fillValue);
            if (err != 0) {
                return err;
            }
            if (label && r.pointCount >= 2) {
                err = DrawLabelLine(c, pts[0], pts[1], style, line);
                if (err != 0) {
                    KORVALEN_LOG(KORVALEN_LOG_ERROR, "DATA_DrawRule fail, GdiplusDrawRectLabelLine fail, error(%d)",
                                 err);
                    return 1;
                }
            }
        } else if (r.kind == 0) {
            uint32_t err = DrawBrokenLine(c, pts, r.pointCount, line, r.lineValue);
            if (err != 0) {
                return err;
            }
            if (label && r.pointCount >= 2) {
                err = DrawLabelLine(c, pts[0], pts[1], style, line);
                if (err != 0) {
                    KORVALEN_LOG(KORVALEN_LOG_ERROR, "DATA_DrawRule fail, GdiplusDrawLabelLine fail, error(%d)", err);
                    return 1;
                }
            }
        } else {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "DrawRule warm, unknown rule type(%d)", r.kind);
        }
    }
    return 0;
}

// Older layout: points as text, "x,y;x,y;..." in percent.
uint32_t ParsePointText(const char* text, IVA_POINT* pts, uint32_t want, const DISP_RECT& rect)
{
    const char* p = text;
    for (uint32_t i = 0; i < want; ++i) {
        int32_t v[2];
        for (int k = 0; k < 2; ++k) {
            while (*p == ',' || *p == ';' || *p == ' ') {
                ++p;
            }
            char* end = nullptr;
            long n = std::strtol(p, &end, 10);
            if (end == p) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "DrawRule: Draw line fail, point value is null");
                return KORVALEN_ERR_IVA_DRAW;
            }
            v[k] = static_cast<int32_t>(n);
            p = end;
        }
        pts[i] = ToRect(rect, v[0], v[1], kPercent);
    }
    return 0;
}

uint32_t DrawRulesOld(const IVA_STORE* store, IVA_CANVAS* c)
{
    for (uint32_t i = 0; i < store->oldRuleCount && i < IVA_OLD_RULES; ++i) {
        const IVA_OLD_RULE& r = store->oldRules[i];
        if (r.enable != 1) {
            continue;
        }
        const uint32_t color = IVA_ColorOf(r.color);
        if (r.type == 0) {
            IVA_POINT pts[2];
            uint32_t err = ParsePointText(r.points, pts, 2, c->drawRect);
            if (err != 0) {
                return err;
            }
            err = DrawLine(c, pts[0], pts[1], color);
            if (err != 0) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "DrawRule: GdiplusDrawLine fail, error(%d)", err);
                return err;
            }
            if ((r.label == 0 || r.label == 1) && (err = DrawLabelLine(c, pts[0], pts[1], r.label, color)) != 0) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "DrawRule: DATA_DrawRule fail, GdiplusDrawLabelLine fail, error(%d)",
                             err);
                return err;
            }
        } else if (r.type == 1) {
            IVA_POINT pts[IVA_OLD_POINT_TEXT / 2];
            const uint32_t n = r.pointCount < IVA_OLD_POINT_TEXT / 2 ? r.pointCount : IVA_OLD_POINT_TEXT / 2;
            uint32_t err = ParsePointText(r.points, pts, n, c->drawRect);
            if (err != 0) {
                return err;
            }
            err = DrawPolygon(c, pts, n, color, color, kFullOpacity, 0);
            if (err != 0) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "DrawRule: GdiplusDrawPloygon fail, error(%d)", err);
                return err;
            }
            if ((r.label == 0 || r.label == 1) && n >= 2 &&
                (err = DrawLabelLine(c, pts[0], pts[1], r.label, color)) != 0) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR,
                             "DrawRule: DATA_DrawRule fail, GdiplusDrawRectLabelLine fail, error(%d)", err);
                return err;
            }
        } else if (r.type != 2) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "DrawRule: DrawRule Warm, Unknown rule type:%d", r.type);
        }
    }
    return 0;
}

IVA_TRACK* FindTrack(IVA_TRACKS* tracks, uint32_t id)
{
    for (IVA_TRACK& t : tracks->slots) {
        if (t.id == id && t.id != 0) {
            return &t;
        }
    }
    return nullptr;
}

} // namespace

uint32_t IVA_GetDrawRect(uint32_t wc, uint32_t hc, uint32_t wp, uint32_t hp, uint32_t hasMode, uint32_t mode,
                         DISP_RECT* rect)
{
    if (wc == 0 || hc == 0 || wp == 0 || hp == 0 || !rect) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DataDraw: Get draw rect fail");
        return KORVALEN_ERR_IVA_DRAW;
    }
    const int64_t Wc = wc, Hc = hc, Wp = wp, Hp = hp;
    if (!hasMode) {
        *rect = DISP_RECT{0, 0, static_cast<int32_t>(Wc), static_cast<int32_t>(Hc)};
    } else if (mode == 1) {
        // Anchored at the top-left corner, not centred.
        if (Wc * Hp <= Wp * Hc) {
            *rect = DISP_RECT{0, 0, static_cast<int32_t>(Wc), static_cast<int32_t>(Hp * Wc / Wp)};
        } else {
            *rect = DISP_RECT{0, 0, static_cast<int32_t>(Wp * Hc / Hp), static_cast<int32_t>(Hc)};
        }
    } else {
        const int64_t left = Wc > Wp ? (Wc - Wp) / 2 : 0;
        const int64_t top = Hc > Hp ? (Hc - Hp) / 2 : 0;
        *rect = DISP_RECT{static_cast<int32_t>(left), static_cast<int32_t>(top), static_cast<int32_t>(left + Wp),
                          static_cast<int32_t>(top + Hp)};
    }
    return 0;
}

uint32_t IVA_ColorOf(uint32_t code)
{
    return code < sizeof kColors / sizeof kColors[0] ? kColors[code] : 0x000000;
}

uint32_t DrawRule_V2(const IVA_STORE* store, IVA_CANVAS* canvas)
{
    if (!store || !canvas || !canvas->cr || store->version == 0) {
        return 0; // nothing received yet: nothing to paint
    }
    if (store->version == IVA_VERSION_CURRENT) {
        return store->rules.ready ? DrawRulesCurrent(store->rules, canvas) : 0;
    }
    if (store->version == IVA_VERSION_OLD) {
        return DrawRulesOld(store, canvas);
    }
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "DataDraw: Unknown data version:%d", store->version);
    return KORVALEN_ERR_IVA_DRAW;
}

uint32_t DATA_DRVDraw(const IVA_STORE* store, IVA_CANVAS* canvas, IVA_TRACKS* tracks, uint32_t show, bool tracking)
{
    if (!store || !canvas || !canvas->cr || store->version != IVA_VERSION_CURRENT || !store->results.ready) {
        return 0;
    }
    const IVA_RECORD& res = store->results;
    if (res.length != res.count * IVA_RESULT_ENTRY) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DrawResult fail, lIVAResultBufLen(%d) not targetnum(%d)", res.length,
                     res.count);
        return KORVALEN_ERR_IVA_DRAW;
    }
    // The centre list's write position is reset once per picture and never
    // advances: each tracked centre replaces the previous one in the first
    // entry while the count grows. Kept so, as trackers downstream expect.
    IVA_CENTRE list[IVA_CENTRE_LIST] = {};
    uint32_t recorded = 0;
    for (uint32_t i = 0; i < res.count; ++i) {
        const IVA_TARGET t = IVA_GetTarget(res, i);
        const IVA_POINT lt = ToRect(canvas->drawRect, t.box[0], t.box[1], kTenThousand);
        const IVA_POINT rb = ToRect(canvas->drawRect, t.box[2], t.box[3], kTenThousand);
        const bool trackedClass = t.cls == 0;
        if (!(show & (trackedClass ? IVA_SHOW_TRACKED : IVA_SHOW_UNTRACKED))) {
            continue;
        }
        const uint32_t color = IVA_ColorOf(t.color);
        uint32_t err = DrawRect(canvas, lt, rb, color);
        if (err != 0) {
            return err;
        }
        if (trackedClass && tracking && t.track != 0 && tracks) {
            list[0] = IVA_CENTRE{t.id, {(lt.x + rb.x) / 2, (lt.y + rb.y) / 2}, 1};
            if (recorded < IVA_CENTRE_LIST) {
                ++recorded;
            }
            if (const IVA_TRACK* track = FindTrack(tracks, t.id)) {
                err = DATA_DrawTrack(canvas, tracks, track, color);
                if (err != 0) {
                    return err;
                }
            }
        }
    }
    if (tracks) {
        DATA_UpdateTrack(tracks, list, recorded);
    }
    return 0;
}

void DATA_UpdateTrack(IVA_TRACKS* tracks, const IVA_CENTRE* list, uint32_t count)
{
    if (!tracks || !list) {
        return;
    }
    for (IVA_TRACK& t : tracks->slots) {
        if (!t.refreshed) {
            t.id = 0;
            t.count = 0;
        }
        t.refreshed = 0;
    }
    for (uint32_t i = 0; i < count; ++i) {
        const IVA_CENTRE& c = list[i];
        if (!c.flag) {
            continue;
        }
        IVA_TRACK* slot = FindTrack(tracks, c.id);
        if (!slot) {
            for (IVA_TRACK& t : tracks->slots) {
                if (t.id == 0) {
                    slot = &t;
                    slot->id = c.id;
                    slot->count = 0;
                    break;
                }
            }
        }
        if (!slot) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "DATA_UpdateTrack warm, have %d point not insert pstTrackArray",
                         count - i + 1);
            return;
        }
        slot->refreshed = 1;
        if (slot->count > 0 && slot->points[(slot->count - 1) % IVA_TRACK_POINTS] == c.point) {
            continue;
        }
        slot->points[slot->count % IVA_TRACK_POINTS] = c.point;
        ++slot->count;
    }
}

uint32_t DATA_DrawTrack(IVA_CANVAS* canvas, const IVA_TRACKS* tracks, const IVA_TRACK* track, uint32_t color)
{
    if (!tracks) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DrawTrack fail, pstTrackArray is null");
        return KORVALEN_ERR_IVA_DRAW;
    }
    if (!track) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DrawTrack fail, pstTrackTmp is null");
        return KORVALEN_ERR_IVA_DRAW;
    }
    const uint32_t n = track->count;
    const uint32_t index = static_cast<uint32_t>(track - tracks->slots);
    if (n <= IVA_TRACK_POINTS) {
        uint32_t err = DrawBrokenLine(canvas, track->points, n, color, kFullOpacity);
        if (err != 0) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR,
                         "DATA_DrawTrack fail, GdiplusDrawBrokenLine fail, error(%d), ulPointNum(%d), ulIndex(%d)", err,
                         n, index);
        }
        return err;
    }
    // A full ring: oldest first.
    const uint32_t start = n % IVA_TRACK_POINTS;
    uint32_t err = DrawBrokenLine(canvas, track->points + start, IVA_TRACK_POINTS - start, color, kFullOpacity);
    if (err != 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     "DATA_DrawTrack fail, GdiplusDrawBrokenLine again fail, error(%d), ulPointNum(%d), ulIndex(%d)",
                     err, n, index);
        return err;
    }
    if (start != 0) {
        err = DrawLine(canvas, track->points[IVA_TRACK_POINTS - 1], track->points[0], color);
        if (err != 0) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR,
                         "DATA_DrawTrack fail, GdiplusDrawLine fail, error(%d), ulPointNum(%d), ulIndex(%d)", err, n,
                         index);
            return err;
        }
        err = DrawBrokenLine(canvas, track->points, start, color, kFullOpacity);
        if (err != 0) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR,
                         "DATA_DrawTrack fail, GdiplusDrawBrokenLine fail, error(%d), ulPointNum(%d), ulIndex(%d)", err,
                         n, index);
        }
    }
    return err;
}
