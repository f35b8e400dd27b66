// The size a HEIF or AVIF file's coded pictures really have, read from their own bitstreams
// (HEVC sequence parameter sets, AV1 sequence headers), against the size their items declare
// ("ispe"). The decoders allocate what the bitstream says: a 3 KB file declaring 12 x 16 could
// otherwise decode at 16384 x 16384 behind estimates made from its boxes. Likewise the cells of
// grids and overlays, which libheif decodes whole whatever part of them a picture shows.

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {

// Big-endian fields over a span; reading past its end sets `ok` to false and yields zeros.
struct ByteReader {
  Input data;
  size_t at = 0;
  bool ok = true;
  uint64_t read(size_t bytes) {
    if (data.size() - at < bytes) {
      ok = false;
      at = data.size();
      return 0;
    }
    uint64_t value = 0;
    for (size_t i = 0; i < bytes; ++i) value = value << 8 | data[at++];
    return value;
  }
  Input take(size_t bytes) {
    if (data.size() - at < bytes) {
      ok = false;
      at = data.size();
      return {};
    }
    at += bytes;
    return data.subspan(at - bytes, bytes);
  }
};

// Bits, most significant first, as both bitstreams store them.
struct BitReader {
  Input data;
  size_t bit = 0;
  bool ok = true;
  uint64_t read(int count) {
    uint64_t value = 0;
    for (int i = 0; i < count; ++i) {
      if (bit >= data.size() * 8) {
        ok = false;
        return 0;
      }
      value = value << 1 | ((data[bit / 8] >> (7 - bit % 8)) & 1);
      ++bit;
    }
    return value;
  }
  // HEVC's ue(v).
  uint64_t expGolomb() {
    int zeros = 0;
    while (ok && read(1) == 0)
      if (++zeros > 32) ok = false;
    return ok ? (uint64_t(1) << zeros) - 1 + read(zeros) : 0;
  }
  // AV1's uvlc().
  uint64_t uvlc() {
    int zeros = 0;
    while (ok && read(1) == 0)
      if (++zeros > 32) ok = false;
    return ok ? read(zeros) + (uint64_t(1) << zeros) - 1 : 0;
  }
};

struct Size {
  uint64_t width = 0, height = 0;
};

// Whether `size` fits within `bound` either way round: some writers declare a size after the
// item's rotation, which is the same memory.
bool fitsWithin(Size size, Size bound) {
  return (size.width <= bound.width && size.height <= bound.height) ||
         (size.width <= bound.height && size.height <= bound.width);
}

// `size` in whole blocks of `block` pixels.
Size roundedUp(Size size, uint64_t block) {
  return {(size.width + block - 1) / block * block, (size.height + block - 1) / block * block};
}

// The luma size of an HEVC sequence parameter set (the whole NAL unit, header included).
std::optional<Size> spsSize(Input nal) {
  if (nal.size() < 3) return std::nullopt;
  std::vector<uint8_t> rbsp;  // without emulation prevention bytes
  for (size_t i = 2; i < nal.size() && rbsp.size() < 512; ++i) {
    if (rbsp.size() >= 2 && nal[i] == 3 && rbsp[rbsp.size() - 1] == 0 && rbsp[rbsp.size() - 2] == 0) continue;
    rbsp.push_back(nal[i]);
  }
  BitReader bits{rbsp};
  bits.read(4);  // sps_video_parameter_set_id
  const int subLayers = int(bits.read(3));
  bits.read(1);
  bits.read(88 + 8);  // general profile, tier and level
  bool profilePresent[8] = {}, levelPresent[8] = {};
  for (int i = 0; i < subLayers; ++i) profilePresent[i] = bits.read(1), levelPresent[i] = bits.read(1);
  if (subLayers > 0)
    for (int i = subLayers; i < 8; ++i) bits.read(2);
  for (int i = 0; i < subLayers; ++i) bits.read((profilePresent[i] ? 88 : 0) + (levelPresent[i] ? 8 : 0));
  bits.expGolomb();                         // sps_seq_parameter_set_id
  if (bits.expGolomb() == 3) bits.read(1);  // chroma_format_idc, separate_colour_plane_flag
  Size size;
  size.width = bits.expGolomb();
  size.height = bits.expGolomb();
  if (!bits.ok) return std::nullopt;
  return size;
}

// The largest frame an AV1 sequence header (an OBU's payload) allows.
std::optional<Size> sequenceHeaderSize(Input payload) {
  BitReader bits{payload};
  bits.read(3);  // seq_profile
  bits.read(1);  // still_picture
  if (bits.read(1)) {
    bits.read(5);  // reduced still picture header: seq_level_idx
  } else {
    bool decoderModel = false;
    int delayLength = 0;
    if (bits.read(1)) {  // timing_info_present_flag
      bits.read(64);
      if (bits.read(1)) bits.uvlc();
      decoderModel = bits.read(1);
      if (decoderModel) {
        delayLength = int(bits.read(5)) + 1;
        bits.read(32 + 5 + 5);
      }
    }
    const bool initialDelay = bits.read(1);
    const int points = int(bits.read(5)) + 1;
    for (int i = 0; i < points && bits.ok; ++i) {
      bits.read(12);
      if (bits.read(5) > 7) bits.read(1);
      if (decoderModel && bits.read(1)) bits.read(2 * delayLength + 1);
      if (initialDelay && bits.read(1)) bits.read(4);
    }
  }
  const int widthBits = int(bits.read(4)) + 1, heightBits = int(bits.read(4)) + 1;
  Size size;
  size.width = bits.read(widthBits) + 1;
  size.height = bits.read(heightBits) + 1;
  if (!bits.ok) return std::nullopt;
  return size;
}

// What the bitstreams of one picture say: the largest size of any header found, and whether
// one could not be read.
struct Coded {
  Size largest;
  bool unreadable = false;
  void add(const std::optional<Size>& size) {
    if (!size) {
      unreadable = true;
      return;
    }
    largest.width = std::max(largest.width, size->width);
    largest.height = std::max(largest.height, size->height);
  }
};

// HEVC NAL units, each behind a big-endian length of `lengthBytes`.
void scanHevc(Input data, size_t lengthBytes, Coded& coded) {
  ByteReader in{data};
  while (in.at < data.size()) {
    const Input nal = in.take(in.read(lengthBytes));
    if (!in.ok) return;
    if (nal.size() >= 2 && ((nal[0] >> 1) & 0x3F) == 33) coded.add(spsSize(nal));
  }
}

// AV1 OBUs, as far as they are well formed.
void scanAv1(Input data, Coded& coded) {
  ByteReader in{data};
  while (in.at < data.size()) {
    const uint64_t header = in.read(1);
    if ((header & 0x80) != 0) return;  // forbidden bit
    if (header & 0x04) in.read(1);     // extension
    uint64_t size = data.size() - in.at;
    if (header & 0x02) {
      size = 0;
      for (int i = 0; i < 8; ++i) {
        const uint64_t byte = in.read(1);
        size |= (byte & 0x7F) << (7 * i);
        if (!(byte & 0x80)) break;
      }
    }
    const Input payload = in.take(size);
    if (!in.ok) return;
    if (((header >> 3) & 0x0F) == 1) coded.add(sequenceHeaderSize(payload));
  }
}

// A box's header, read from `in`, which then stands at its payload: its type, and its size, a
// 64-bit one where the 32-bit field says 1, and `rest` where it says 0 (to the end).
struct BoxHeader {
  Input type;
  uint64_t size;
};
BoxHeader readBoxHeader(ByteReader& in, uint64_t rest) {
  const uint64_t size = in.read(4);
  const Input type = in.take(4);
  const uint64_t large = size == 1 ? in.read(8) : size;
  return {type, large == 0 ? rest : large};
}

struct Box {
  const uint8_t* type;
  Input payload;
};

// The boxes of `data`, in order, as far as they are whole (the last one may run to the end).
std::vector<Box> boxesOf(Input data) {
  std::vector<Box> boxes;
  ByteReader in{data};
  while (data.size() - in.at >= 8) {
    const size_t start = in.at;
    const auto [type, size] = readBoxHeader(in, data.size() - start);
    const size_t headerBytes = in.at - start;
    if (!in.ok || size < headerBytes || size > data.size() - start) break;
    boxes.push_back({type.data(), in.take(size - headerBytes)});
  }
  return boxes;
}

const Box* find(const std::vector<Box>& boxes, const char* type) {
  for (const Box& box : boxes)
    if (std::memcmp(box.type, type, 4) == 0) return &box;
  return nullptr;
}

struct Extent {
  int method;  // 0: in the file, 1: in the idat box
  uint64_t offset, length;
  bool operator<(const Extent& o) const {
    return std::tie(method, offset, length) < std::tie(o.method, o.offset, o.length);
  }
};

struct Item {
  char type[4] = {};
  // Which boxes named the item: a second entry in one of them is refused, as libavif does,
  // for libheif takes the first where a reader keeping the last would check other data.
  bool described = false, located = false, associated = false;
  std::vector<Extent> extents;
  std::vector<uint32_t> properties;  // indices into ipco, from 1
  std::vector<uint32_t> cells;       // the items a grid or an overlay is made of ("dimg")
};

void readInfe(Input payload, std::map<uint32_t, Item>& items) {
  ByteReader in{payload};
  const uint64_t version = in.read(1);
  in.read(3);
  if (version < 2) return;  // no item type
  const uint32_t id = uint32_t(in.read(version == 3 ? 4 : 2));
  in.read(2);
  const Input type = in.take(4);
  if (!in.ok) return;
  Item& item = items[id];
  if (std::exchange(item.described, true)) fail("an item described twice");
  std::memcpy(item.type, type.data(), 4);
}

void readIloc(Input payload, std::map<uint32_t, Item>& items) {
  ByteReader in{payload};
  const uint64_t version = in.read(1);
  in.read(3);
  const uint64_t sizes = in.read(2);
  const size_t offsetBytes = (sizes >> 12) & 15, lengthBytes = (sizes >> 8) & 15,
               baseBytes = (sizes >> 4) & 15, indexBytes = version >= 1 ? sizes & 15 : 0;
  // Each field is 0, 4 or 8 bytes. libheif reads any other size as none and libavif refuses
  // it: taking it at its word would have the checks below read other data than the decoder.
  for (const size_t bytes : {offsetBytes, lengthBytes, baseBytes, indexBytes})
    if (bytes != 0 && bytes != 4 && bytes != 8) fail("item locations in fields of an unknown size");
  const uint64_t count = in.read(version < 2 ? 2 : 4);
  for (uint64_t i = 0; i < count && in.ok; ++i) {
    const uint32_t id = uint32_t(in.read(version < 2 ? 2 : 4));
    const int method = version >= 1 ? int(in.read(2) & 15) : 0;
    in.read(2);  // data_reference_index
    const uint64_t base = in.read(baseBytes);
    const uint64_t extents = in.read(2);
    std::vector<Extent> found;
    for (uint64_t e = 0; e < extents && in.ok; ++e) {
      in.read(indexBytes);
      const uint64_t offset = in.read(offsetBytes), length = in.read(lengthBytes);
      found.push_back({method, base + offset, length});
    }
    if (!in.ok) break;
    Item& item = items[id];
    if (std::exchange(item.located, true)) fail("an item located twice");
    item.extents = std::move(found);
  }
}

// As libheif 1.15 reads them: one reference after another, each list as long as its count
// says, up to the end of the "iref" box whatever the size of the reference's own box; of two
// lists of one item's cells, the first.
void readIref(Input payload, std::map<uint32_t, Item>& items) {
  if (payload.size() < 4) return;
  const size_t idBytes = payload[0] == 0 ? 2 : 4;
  ByteReader in{payload, 4};
  std::set<uint32_t> derived;
  while (in.at < payload.size()) {
    const Input type = readBoxHeader(in, 0).type;  // its size libheif passes over
    if (in.ok && !std::memcmp(type.data(), "uuid", 4)) in.take(16);
    if (!in.ok) return;  // libheif refuses the file
    const uint32_t from = uint32_t(in.read(idBytes));
    const uint64_t count = in.read(2);
    std::vector<uint32_t> to;
    // A list cut short by the end of the box keeps the last identifier read, 0 when cut in it.
    for (uint64_t i = 0; i < count; ++i) {
      to.push_back(uint32_t(in.read(idBytes)));
      if (in.at >= payload.size()) break;
    }
    if (!std::memcmp(type.data(), "dimg", 4) && derived.insert(from).second)
      items[from].cells = std::move(to);
  }
}

void readIpma(Input payload, std::map<uint32_t, Item>& items) {
  ByteReader in{payload};
  const uint64_t version = in.read(1);
  const uint64_t flags = in.read(3);
  const uint64_t count = in.read(4);
  for (uint64_t i = 0; i < count && in.ok; ++i) {
    const uint32_t id = uint32_t(in.read(version < 1 ? 2 : 4));
    const uint64_t associations = in.read(1);
    if (!in.ok) break;
    Item& item = items[id];
    if (std::exchange(item.associated, true)) fail("an item's properties associated twice");
    for (uint64_t a = 0; a < associations && in.ok; ++a) {
      const uint32_t index = (flags & 1) ? uint32_t(in.read(2) & 0x7FFF) : uint32_t(in.read(1) & 0x7F);
      if (index > 0 && in.ok) item.properties.push_back(index);
    }
  }
}

// The last property of `type` given to an item, as libheif takes it; nothing when none.
const Box* propertyOf(const Item& item, const std::vector<Box>& properties, const char* type) {
  const Box* found = nullptr;
  for (uint32_t index : item.properties)
    if (index <= properties.size() && !std::memcmp(properties[index - 1].type, type, 4))
      found = &properties[index - 1];
  return found;
}

bool isType(const Item& item, const char* type) { return !std::memcmp(item.type, type, 4); }

// An item list: its items, their properties, and the data stored within it ("idat"). The boxes
// point into the payload it was read from.
struct ItemList {
  std::map<uint32_t, Item> items;
  std::vector<Box> properties;
  Input idat;
};

ItemList readItemList(Input meta) {
  ItemList list;
  if (meta.size() < 4) return list;
  const std::vector<Box> inMeta = boxesOf(meta.subspan(4));
  if (const Box* iinf = find(inMeta, "iinf")) {
    const size_t countBytes = iinf->payload.size() > 0 && iinf->payload[0] == 0 ? 2 : 4;
    if (iinf->payload.size() >= 4 + countBytes)
      for (const Box& infe : boxesOf(iinf->payload.subspan(4 + countBytes)))
        if (!std::memcmp(infe.type, "infe", 4)) readInfe(infe.payload, list.items);
  }
  if (const Box* iloc = find(inMeta, "iloc")) readIloc(iloc->payload, list.items);
  if (const Box* iref = find(inMeta, "iref")) readIref(iref->payload, list.items);
  if (const Box* iprp = find(inMeta, "iprp")) {
    const std::vector<Box> inIprp = boxesOf(iprp->payload);
    if (const Box* ipco = find(inIprp, "ipco")) list.properties = boxesOf(ipco->payload);
    for (const Box& ipma : inIprp)
      if (!std::memcmp(ipma.type, "ipma", 4)) readIpma(ipma.payload, list.items);
  }
  if (const Box* idat = find(inMeta, "idat")) list.idat = idat->payload;
  return list;
}

// An item's declared size ("ispe"); nothing when it has none.
std::optional<Size> declaredSize(const Item& item, const std::vector<Box>& properties) {
  const Box* ispe = propertyOf(item, properties, "ispe");
  if (!ispe || ispe->payload.size() < 12) return std::nullopt;
  ByteReader in{ispe->payload, 4};
  Size size;
  size.width = in.read(4);
  size.height = in.read(4);
  return size;
}

uint64_t saturatingAdd(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

// The cells libheif decodes to make the derived pictures (grids, overlays, "iden") of an item
// list, each whole at its own size whatever part of it the picture shows, one after another
// in an overlay and up to four at once in a grid.
class CellCounter {
 public:
  explicit CellCounter(const ItemList& list) : list_(list) {}

  DerivedCells of(uint32_t id, int depth = 0) {
    const auto item = list_.items.find(id);
    if (item == list_.items.end() || !isDerived(item->second)) return {};
    if (const auto known = counted_.find(id); known != counted_.end()) return known->second;
    // libheif follows the references as deep as they go: a picture made of itself never ends.
    if (!open_.insert(id).second) fail("a picture made of itself");
    if (depth > kMaxNesting) fail("pictures nested deeper than any picture needs");
    DerivedCells cells;
    std::vector<uint64_t> held;
    for (const uint32_t cellId : item->second.cells) {
      const DerivedCells inner = of(cellId, depth + 1);
      const uint64_t own = pixelsOf(cellId);
      cells.all = saturatingAdd(cells.all, saturatingAdd(own, inner.all));
      held.push_back(saturatingAdd(own, inner.heldAtOnce));
    }
    const size_t atOnce = std::min(held.size(), size_t(isType(item->second, "grid") ? 4 : 1));
    std::partial_sort(held.begin(), held.begin() + std::ptrdiff_t(atOnce), held.end(), std::greater<>());
    for (size_t i = 0; i < atOnce; ++i) cells.heldAtOnce = saturatingAdd(cells.heldAtOnce, held[i]);
    open_.erase(id);
    return counted_[id] = cells;
  }

  static bool isDerived(const Item& item) {
    return isType(item, "grid") || isType(item, "iovl") || isType(item, "iden");
  }

 private:
  static constexpr int kMaxNesting = 16;

  // A cell's own pixels: its declared size, for a coded picture in the whole blocks (up to 64
  // pixels) its decoder allocates; the checks keep both honest.
  uint64_t pixelsOf(uint32_t id) const {
    const auto item = list_.items.find(id);
    if (item == list_.items.end()) return 0;
    const std::optional<Size> size = declaredSize(item->second, list_.properties);
    if (!size) return 0;
    const auto [width, height] = roundedUp(*size, isDerived(item->second) ? 1 : 64);
    return width != 0 && height > UINT64_MAX / width ? UINT64_MAX : width * height;
  }

  const ItemList& list_;
  std::map<uint32_t, DerivedCells> counted_;
  std::set<uint32_t> open_;
};

// The bytes of an item: its one extent in place where the file is in memory, or read (and
// several joined) into `joined`; nothing when they are not all within the file (an extent of
// length 0 runs to the end of its source).
std::optional<Input> itemData(const Item& item, ByteSource& file, Input idat, std::vector<uint8_t>& joined) {
  const std::optional<Input> whole = file.contiguous();
  for (const Extent& extent : item.extents) {
    if (extent.method > 1) return std::nullopt;
    const uint64_t size = extent.method == 0 ? file.size() : idat.size();
    if (extent.offset > size) return std::nullopt;
    const uint64_t length = extent.length == 0 ? size - extent.offset : extent.length;
    if (length > size - extent.offset) return std::nullopt;
    if (extent.method == 1 || whole) {
      const Input bytes = (extent.method == 1 ? idat : *whole).subspan(size_t(extent.offset), size_t(length));
      if (item.extents.size() == 1) return bytes;
      joined.insert(joined.end(), bytes.begin(), bytes.end());
    } else {
      const std::vector<uint8_t> bytes = file.readAt(extent.offset, size_t(length));
      if (bytes.size() != length) return std::nullopt;
      joined.insert(joined.end(), bytes.begin(), bytes.end());
    }
  }
  return Input(joined);
}

// Coded sizes are whole blocks (up to 64 pixels) that the declared size may crop.
void checkWithin(const Coded& coded, uint64_t width, uint64_t height) {
  if (!fitsWithin(coded.largest, roundedUp({width, height}, 64)))
    fail("coded picture larger than the size its file declares");
}

// A grid's or an overlay's picture is the size its own data gives, which the decoder allocates
// (libheif draws an overlay on a canvas of that size): no larger than its declared size
// ("ispe").
void checkDerived(const Item& item, bool overlay, ByteSource& file, Input idat,
                  const std::vector<Box>& properties) {
  // Without a declared size libheif takes the one the data names, whatever it is, for a cell of
  // another grid or overlay too.
  const std::optional<Size> declared = declaredSize(item, properties);
  if (!declared) fail(overlay ? "overlay without a declared size" : "grid picture without a declared size");
  std::vector<uint8_t> joined;
  const auto data = itemData(item, file, idat, joined);
  if (!data) return;  // the decoder refuses it
  ByteReader derived{*data};
  derived.read(1);
  const uint64_t fieldBytes = (derived.read(1) & 1) ? 4 : 2;
  derived.read(overlay ? 8 : 2);  // the canvas's fill colour, or a grid's rows and columns less one
  Size size;
  size.width = derived.read(fieldBytes);
  size.height = derived.read(fieldBytes);
  if (derived.ok && !fitsWithin(size, *declared))
    fail(overlay ? "overlay larger than the size its file declares"
                 : "grid picture larger than the size its file declares");
}

}  // namespace

std::vector<uint8_t> metaPayload(ByteSource& file) {
  // Far above any honest item list; a box that large is refused rather than read.
  constexpr uint64_t kMaxMetaBytes = 64ull << 20;
  const uint64_t end = file.size();
  std::vector<uint8_t> payload;
  bool found = false;
  for (uint64_t at = 0; end - at >= 8;) {
    const std::vector<uint8_t> header = file.readAt(at, 16);
    ByteReader in{header};
    const auto [type, size] = readBoxHeader(in, end - at);
    if (!in.ok || size < in.at || size > end - at) break;
    if (!std::memcmp(type.data(), "meta", 4)) {
      // libheif reads the last, a reader of the first would check other items than it decodes.
      if (found) fail("item information given twice");
      if (size - in.at > kMaxMetaBytes) fail("item information larger than any picture needs");
      found = true, payload = file.readAt(at + in.at, size_t(size - in.at));
    }
    at += size;
  }
  return payload;
}

void checkCodedSizes(Input bytes) {
  MemorySource source(bytes);
  checkCodedSizes(source);
}

// The item types libheif holds pictures for.
constexpr const char* kPictureTypes[] = {"hvc1", "av01", "grid", "iovl", "iden"};

DerivedCells derivedCells(const std::vector<uint8_t>& meta) {
  const ItemList list = readItemList(meta);
  CellCounter counter(list);
  DerivedCells most;
  for (const auto& [id, item] : list.items) {
    const DerivedCells cells = counter.of(id);
    most.all = std::max(most.all, cells.all);
    most.heldAtOnce = std::max(most.heldAtOnce, cells.heldAtOnce);
  }
  return most;
}

void checkCodedSizes(ByteSource& file) {
  const std::vector<uint8_t> meta = metaPayload(file);
  const ItemList list = readItemList(meta);
  const auto& [items, properties, idat] = list;
  CellCounter cells(list);

  // Items often share their data (a grid's cells): each stretch is read once.
  std::map<std::tuple<std::vector<Extent>, const Box*>, Coded> scanned;
  for (const auto& [id, item] : items) {
    const bool hevc = isType(item, "hvc1"), av1 = isType(item, "av01");
    const bool overlay = isType(item, "iovl");
    if (CellCounter::isDerived(item)) {
      // libheif 1.15 asserts (and so aborts the process) when an overlay is made of an item it
      // holds no picture for.
      for (const uint32_t cellId : item.cells) {
        const auto cell = items.find(cellId);
        if (cell == items.end() || std::none_of(std::begin(kPictureTypes), std::end(kPictureTypes),
                                                [&](auto type) { return isType(cell->second, type); }))
          fail("grid or overlay of an item that is no picture");
      }
      // Its cells are decoded whole however little of them it shows: a 16 x 16 overlay of a
      // flat 20000 x 20000 cell is a small file.
      if (cells.of(id).all > kMaxPixels) fail(kTooLarge);
      if (isType(item, "iden")) {
        // Its picture is its cell's, at the cell's size.
        const std::optional<Size> declared = declaredSize(item, properties);
        for (const uint32_t cellId : item.cells) {
          const std::optional<Size> cell = declaredSize(items.at(cellId), properties);
          if (!declared || !cell || !fitsWithin(*cell, *declared))
            fail("derived picture larger than the size its file declares");
        }
      } else {
        checkDerived(item, overlay, file, idat, properties);
      }
      continue;
    }
    if (!hevc && !av1) continue;
    const Box* config = propertyOf(item, properties, hevc ? "hvcC" : "av1C");
    auto key = std::make_tuple(item.extents, config);
    auto known = scanned.find(key);
    if (known == scanned.end()) {
      Coded coded;
      if (config && hevc && config->payload.size() >= 23) {
        // hvcC: 22 bytes of fields, then arrays of parameter sets with 2-byte lengths.
        ByteReader in{config->payload, 22};
        const uint64_t arrays = in.read(1);
        for (uint64_t a = 0; a < arrays && in.ok; ++a) {
          in.read(1);
          const uint64_t count = in.read(2);
          for (uint64_t n = 0; n < count && in.ok; ++n) {
            const Input nal = in.take(in.read(2));
            if (in.ok && nal.size() >= 2 && ((nal[0] >> 1) & 0x3F) == 33) coded.add(spsSize(nal));
          }
        }
      }
      if (config && av1 && config->payload.size() > 4) scanAv1(config->payload.subspan(4), coded);
      std::vector<uint8_t> joined;
      if (auto data = itemData(item, file, idat, joined)) {
        if (hevc)  // in 4-byte lengths whatever hvcC says, as libheif hands them to libde265
          scanHevc(*data, 4, coded);
        else
          scanAv1(*data, coded);
      }
      known = scanned.emplace(std::move(key), coded).first;
    }
    const Coded& coded = known->second;
    if (coded.unreadable) fail("unreadable sequence header of a coded picture");
    if (coded.largest.width == 0) continue;  // no header here: the decoder finds none either
    const std::optional<Size> declared = declaredSize(item, properties);
    if (!declared) fail("coded picture without a declared size");
    checkWithin(coded, declared->width, declared->height);
  }
}

void checkAv1Size(Input obus, uint64_t width, uint64_t height) {
  Coded coded;
  scanAv1(obus, coded);
  if (coded.unreadable) fail("unreadable sequence header of a coded picture");
  checkWithin(coded, width, height);
}

}  // namespace quillane::codecs
