// The pages the array answers to INQUIRY, laid out at the offsets the host
// reads, after the LUN's overrides and patches.
#include "model.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "model_internal.h"

namespace vnarray {

using internal::CheckCondition;
using internal::kAscInvalidFieldInCdb;
namespace {

void PutBe16(Bytes& b, std::size_t at, std::uint16_t v) {
    b.at(at) = static_cast<std::uint8_t>(v >> 8U);
    b.at(at + 1) = static_cast<std::uint8_t>(v & 0xFFU);
}

// Copies text into a fixed field, padding with pad; longer text is cut.
void PutField(Bytes& b, std::size_t at, std::size_t width, const std::string& text,
              std::uint8_t pad) {
    for (std::size_t i = 0; i < width; ++i) {
        b.at(at + i) = i < text.size() ? static_cast<std::uint8_t>(text[i]) : pad;
    }
}

void PutBytes(Bytes& b, std::size_t at, std::size_t width, const Bytes& src) {
    for (std::size_t i = 0; i < width && i < src.size(); ++i) {
        b.at(at + i) = src[i];
    }
}

Wwn DefaultWwn(const LunConf& lun) {
    // NAA 6 with a stable body, so a LUN keeps its WWN across runs.
    std::string seed = lun.array + "/" + lun.dev;
    std::uint64_t a = Fnv1a64(reinterpret_cast<const std::uint8_t*>(seed.data()), seed.size());
    seed += "#";
    std::uint64_t b = Fnv1a64(reinterpret_cast<const std::uint8_t*>(seed.data()), seed.size());
    Wwn w{};
    for (std::size_t i = 0; i < 8; ++i) {
        w.at(i) = static_cast<std::uint8_t>(a >> (56U - 8U * i));
        w.at(8 + i) = static_cast<std::uint8_t>(b >> (56U - 8U * i));
    }
    w[0] = static_cast<std::uint8_t>(0x60U | (w[0] & 0x0FU));
    return w;
}

}  // namespace

std::optional<Bytes> Model::Page(const std::string& dev, int page) const {
    std::lock_guard lock(mutex_);
    const Lun* l = FindLunLocked(dev);
    if (l == nullptr) {
        return std::nullopt;
    }
    return PageLocked(*l, page);
}

std::optional<Bytes> Model::PageLocked(const Lun& lun, int page) const {
    const LunConf& s = lun.conf;
    const Array* array = nullptr;
    if (!s.array.empty()) {
        auto it = arrays_.find(s.array);
        array = it == arrays_.end() ? nullptr : it->second.get();
    }
    Bytes p;
    auto over = s.pages.find(page);
    if (over != s.pages.end()) {
        if (!over->second) {
            return std::nullopt;
        }
        p = *over->second;
    } else {
        switch (page) {
            case kStandardPage:
                p.assign(kStandardInquiryLen, 0);
                p[2] = 0x06;  // SPC-4
                p[3] = 0x02;  // response data format
                p[4] = static_cast<std::uint8_t>(kStandardInquiryLen - 5);
                p[7] = 0x02;  // command queueing
                PutField(p, 8, 8, s.vendor, ' ');
                PutField(p, 16, 16, s.product, ' ');
                PutField(p, 32, 4, s.revision, ' ');
                break;
            case 0x00: {
                const std::uint8_t supported[] = {0x00, 0x80, 0x83, 0xC0, 0xC8};
                p.assign(4, 0);
                for (std::uint8_t code : supported) {
                    auto o = s.pages.find(code);
                    if (o == s.pages.end() || o->second) {
                        p.push_back(code);
                    }
                }
                p[3] = static_cast<std::uint8_t>(p.size() - 4);
                break;
            }
            case 0x80: {
                p.assign(kPage80Len, 0);
                p[1] = 0x80;
                p[3] = static_cast<std::uint8_t>(kPage80Len - 4);
                // NUL padding keeps a short serial a valid letters-and-digits text.
                if (s.serial) {
                    PutBytes(p, 4, kSerialLen, *s.serial);
                } else if (array != nullptr) {
                    PutField(p, 4, kSerialLen, array->conf.sn, 0);
                }
                break;
            }
            case 0x83: {
                p.assign(kPage83Len, 0);
                p[1] = 0x83;
                p[3] = static_cast<std::uint8_t>(kPage83Len - 4);
                p[4] = 0x01;  // binary code set
                p[5] = 0x03;  // NAA designator, associated with the LUN
                p[7] = 16;
                const Wwn w = s.wwn ? *s.wwn : DefaultWwn(s);
                std::copy(w.begin(), w.end(), p.begin() + 8);
                break;
            }
            case 0xC0:
                p.assign(kPageC0Len, 0);
                p[1] = 0xC0;
                PutBe16(p, 2, static_cast<std::uint16_t>(kPageC0Len - 4));
                if (array != nullptr) {
                    p[184] = array->conf.major;
                    p[186] = array->conf.minor;
                }
                break;
            case 0xC8: {
                p.assign(kPageC8Len, 0);
                p[1] = 0xC8;
                PutBe16(p, 2, static_cast<std::uint16_t>(kPageC8Len - 4));
                PutField(p, 29, kShortNameLen, s.name, 0);
                Bytes name;
                if (s.array_name) {
                    name = *s.array_name;
                } else if (array != nullptr) {
                    name.assign(array->conf.name.begin(), array->conf.name.end());
                }
                p[106] = static_cast<std::uint8_t>(name.size());
                PutBytes(p, 107, kArrayNameMax, name);
                PutBe16(p, 206, s.name_selector ? *s.name_selector : (s.long_name.empty() ? 0 : 1));
                PutField(p, 208, kLongNameLen, s.long_name, 0);
                break;
            }
            default:
                return std::nullopt;
        }
    }
    for (const PagePatch& patch : s.patches) {
        if (patch.page != page) {
            continue;
        }
        if (p.size() < patch.offset + patch.bytes.size()) {
            p.resize(patch.offset + patch.bytes.size(), 0);
        }
        std::copy(patch.bytes.begin(), patch.bytes.end(),
                  p.begin() + static_cast<std::ptrdiff_t>(patch.offset));
    }
    return p;
}

void Model::AnswerInquiry(const Lun& lun, const SgRequest& request, SgResponse& response) const {
    const Bytes& cdb = request.cdb;
    const bool evpd = (cdb[1] & 0x01U) != 0;
    if (!evpd && cdb[2] != 0) {
        CheckCondition(response, kAscInvalidFieldInCdb);
        return;
    }
    const std::uint32_t alloc = (static_cast<std::uint32_t>(cdb[3]) << 8U) | cdb[4];
    auto page = PageLocked(lun, evpd ? cdb[2] : kStandardPage);
    if (!page) {
        CheckCondition(response, kAscInvalidFieldInCdb);
        return;
    }
    const std::size_t n = std::min<std::size_t>({alloc, page->size(), request.dxfer_len});
    page->resize(n);
    response.data_in = std::move(*page);
}

}  // namespace vnarray
