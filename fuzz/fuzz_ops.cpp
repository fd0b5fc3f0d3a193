// The processor under arbitrary definitions and call sequences.
//
// The input first decides one or two block definitions (1 to 16 fields each, with any type, position,
// length and places; record sizes taken raw, 0 and below included; the repeat bit and count; attribute
// bytes, attribute sources and key-encrypted fields), then drives up to 64 operations of the processor's
// public surface with arbitrary arguments. After every operation the buffer's invariants are checked, and
// every string read out of the buffer must be valid UTF-8.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "blockproc/codec/TextEncoding.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/Utf8.h"
#include "blockproc/parser/TBXML.h"

namespace blockproc::fuzz {
namespace {

constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();
constexpr int kOperations = 36;
// Areas the harness lets the processor allocate; larger requests that still fit 32 bits are steered away
// (the processor may legitimately allocate up to 2 GiB, which only slows the search down).
constexpr int64_t kMaxArea = int64_t{8} << 20;

// A block definition whose record sizes can be taken as they are written, 0 and negative values included,
// instead of being worked out from the fields.
class FuzzBlock : public BlockInfo {
 public:
  bool rawSizes = false;
  int32_t getRecordMemSize() const override {
    return rawSizes ? m_nRecordIOMemSize : BlockInfo::getRecordMemSize();
  }
  int32_t getRecordFieldSize() const override {
    return rawSizes ? m_nRecordIOSize : BlockInfo::getRecordFieldSize();
  }
};

constexpr const char* kNames[] = {"F0", "F1", "F2", "F3", "F4", "F5", "F6", "F7", "code", "acct", "", "F1 "};

std::string_view fieldName(FuzzInput& in) {
  return in.pick(kNames);
}

int32_t dataType(FuzzInput& in) {
  static constexpr int32_t kTypes[] = {0, 1, 2, 3, 4, 5, 6, 0, 1, 7, -1, 100};
  const uint8_t b = in.byte();
  return b < 250 ? kTypes[b % std::size(kTypes)] : in.i32();
}

void readField(FuzzInput& in, FieldInfo& f, int64_t& nextPos) {
  f.szFieldName = std::string(fieldName(in));
  f.nDataType = dataType(in);
  const uint8_t shape = in.byte();
  f.nLength = (shape & 3) != 0 ? in.byte() % 72 : in.number();
  f.nDecimalLen = (shape & 4) != 0 ? in.byte() % 6 : in.number();
  // Mostly back to back; sometimes anywhere, overlapping, negative or past the record.
  f.nDataPos = (shape & 24) != 0 ? static_cast<int32_t>(std::min(nextPos, kInt32Max)) : in.number();
  const uint8_t flags = in.byte();
  f.nAttr = (flags & 1) != 0 ? 1 : 0;
  f.bKeyEnc = (flags & 2) != 0;
  f.bAccountNo = (flags & 4) != 0;
  f.bItemCode = (flags & 8) != 0;
  f.bPassword = (flags & 16) != 0;
  if ((flags & 32) != 0) f.szAttrRefKey = std::string(fieldName(in));
  if ((flags & 64) != 0) f.nEnc = in.number();
  nextPos = int64_t{f.nDataPos} + std::max(f.nLength, 0) + (f.nAttr != 0 ? 1 : 0);
}

std::unique_ptr<FuzzBlock> readBlock(FuzzInput& in, const FieldInfo* stray) {
  auto block = std::make_unique<FuzzBlock>();
  block->m_szBlockName = "Block";
  const uint8_t head = in.byte();
  block->m_bAttribute = (head & 1) != 0;
  block->rawSizes = (head & 2) != 0;
  block->m_nBlockType = static_cast<int8_t>(in.byte());
  block->m_nRepeatCount = in.number();
  if ((head & 4) != 0 || block->rawSizes) block->m_nRecordIOMemSize = in.number();
  if ((head & 8) != 0 || block->rawSizes) block->m_nRecordIOSize = in.number();
  const size_t count = 1 + in.below(16);
  int64_t nextPos = 0;
  for (size_t i = 0; i < count; ++i) {
    auto field = std::make_unique<FieldInfo>();
    readField(in, *field, nextPos);
    if (block->m_bAttribute && field->nAttr == 0) ++nextPos;
    block->addField(std::move(field));
  }
  // Attribute-source keys: a field of the block, a field of no block, or nothing.
  for (size_t i = in.below(4); i > 0; --i) {
    const uint8_t which = in.byte();
    const FieldInfo* source = which < 170 ? block->getFieldInfoFromIndex(static_cast<int32_t>(which % count))
                              : which < 220 ? stray
                                            : nullptr;
    block->setAttrSource(std::string(fieldName(in)), source);
  }
  return block;
}

class Run {
 public:
  explicit Run(FuzzInput& in) : in_(in) {
    modeJson_.m_strDataMode = ".WSKJson";
    modeFeed_.m_strDataMode = ".WSKJsonFeed";
    modeOther_.m_strDataMode = "TEXT";
    int64_t pos = 0;
    readField(in_, stray_, pos);
    main_ = readBlock(in_, &stray_);
    if (in_.flag()) other_ = readBlock(in_, &stray_);
    proc_ = std::make_unique<KXBlockDataProc>(main_.get());
  }

  void go() {
    check();
    // BLOCKPROC_FUZZ_TRACE=1 in the environment prints each operation and the state after it.
    static const bool trace = std::getenv("BLOCKPROC_FUZZ_TRACE") != nullptr;
    for (int op = 0; op < 64 && !in_.empty(); ++op) {
      const uint8_t code = in_.byte();
      step(code);
      check();
      if (trace) {
        std::fprintf(stderr,
                     "op %2d: case %2d  R %d  buffer %d bytes, %d records, start %d, valid %d, len %lld\n",
                     op, code % kOperations, static_cast<int>(recordSize()), proc_->getBlockBuffSize(),
                     proc_->getBufCount(), proc_->getStartIndex(), proc_->getValidCount(),
                     static_cast<long long>(proc_->getBlockDataLen()));
      }
    }
    proc_.reset();  // the destructor wipes and frees under the sanitizers too
  }

 private:
  // ---- argument draws ---------------------------------------------------------------------------------

  const FieldInfo* field() {
    const uint8_t mode = in_.byte();
    if (mode < 200) {
      const FuzzBlock* block = (other_ && (mode & 1) != 0) ? other_.get() : main_.get();
      return block->getFieldInfoFromIndex(static_cast<int32_t>(in_.below(block->m_FieldInfoList.size())));
    }
    return mode < 230 ? &stray_ : nullptr;
  }

  std::string_view name() { return in_.byte() < 220 ? fieldName(in_) : in_.shortBytes(16); }

  int32_t index() {
    static constexpr int32_t kFar[] = {std::numeric_limits<int32_t>::max(),
                                       std::numeric_limits<int32_t>::max() / 2,
                                       1 << 20,
                                       std::numeric_limits<int32_t>::min(),
                                       -1,
                                       98,
                                       99,
                                       100,
                                       1000};
    const uint8_t mode = in_.byte();
    return mode < 220 ? static_cast<int32_t>(mode % 12) - 2 : in_.pick(kFar);
  }

  std::optional<std::string_view> value() {
    static constexpr std::string_view kValues[] = {"",
                                                   "0",
                                                   "-1",
                                                   "1.5",
                                                   "-123.456",
                                                   "+42",
                                                   " 17 ",
                                                   "0x1F",
                                                   "0XfF",
                                                   "12a",
                                                   "1e308",
                                                   "-1e-308",
                                                   "nan",
                                                   "inf",
                                                   "99999999999999999999999",
                                                   "-9223372036854775808",
                                                   "\xea\xb0\x80\xeb\x82\x98",   // two Hangul syllables
                                                   "\xe3\x80\x80x\xe3\x80\x80",  // ideographic spaces
                                                   "\xf0\x9f\x98\x80",           // outside the BMP
                                                   "\xea\xb0",                   // cut sequence
                                                   "\xff\xfe",
                                                   "a\0b"};
    const uint8_t mode = in_.byte();
    if (mode < 16) return std::nullopt;
    if (mode < 140) return in_.pick(kValues);
    return in_.shortBytes(48);
  }

  uint32_t encoding() {
    static constexpr uint32_t kEncodings[] = {kTextEncodingCP949,
                                              kTextEncodingUTF8,
                                              kTextEncodingASCII,
                                              kTextEncodingISOLatin1,
                                              kTextEncodingEUCKR,
                                              0u,
                                              2u,
                                              0x80000421u,
                                              0xFFFFFFFFu};
    return in_.byte() < 240 ? in_.pick(kEncodings) : in_.u32();
  }

  // Received bytes as a caller hands them: an exact-size area, so a read past startPos + recvSize is caught.
  struct Received {
    std::vector<uint8_t> area;
    const void* data = nullptr;
    int32_t start = 0;
    int32_t size = 0;
  };
  Received received() {
    Received r;
    const uint8_t mode = in_.byte();
    r.start = static_cast<int32_t>(in_.byte() % 8);
    if (mode < 24) {
      r.size = -static_cast<int32_t>(in_.byte());  // 0 or below
    } else {
      const size_t want = in_.u16();
      const std::string_view bytes = in_.bytes(want);
      r.area.assign(static_cast<size_t>(r.start), 'x');
      r.area.insert(r.area.end(), bytes.begin(), bytes.end());
      r.size = static_cast<int32_t>(bytes.size());
    }
    if (r.area.empty()) r.area.resize(static_cast<size_t>(r.start));
    r.data = mode < 240 ? static_cast<const void*>(r.area.data()) : nullptr;
    if (r.area.empty() && r.data != nullptr) r.data = &r.start;  // never read: size 0 or below
    return r;
  }

  // ---- allocation guards --------------------------------------------------------------------------------

  int64_t recordSize() const {
    const BlockInfo* b = proc_->getBlockInfo();
    return b != nullptr ? b->getRecordMemSize() : 0;
  }
  int64_t fieldStride() const {
    const BlockInfo* b = proc_->getBlockInfo();
    return b != nullptr ? b->getRecordFieldSize() : 0;
  }
  static bool tooLarge(int64_t bytes) { return bytes > kMaxArea && bytes <= kInt32Max; }
  // A record index whose growth stays small, or INT32_MAX, which no growth can reach.
  int32_t writableIndex() {
    const int32_t i = index();
    // Growth uses the record size, or the back-to-back field size for the positional writer.
    const int64_t records = int64_t{i} + 1;
    const bool large = tooLarge(records * recordSize()) || tooLarge(records * fieldStride());
    return large ? std::numeric_limits<int32_t>::max() : i;
  }
  bool receiveTooLarge(int32_t size) const {
    const int64_t r = recordSize();
    if (r <= 0 || size <= 0) return false;
    const int64_t records = std::max<int64_t>(1, (int64_t{size} + r - 1) / r);
    return tooLarge(records * r);
  }

  // ---- checks -------------------------------------------------------------------------------------------

  void check() const {
    const KXBlockDataProc& p = *proc_;
    require(p.getStartIndex() >= 0, "start index negative");
    require(p.getBufCount() >= 0, "buffer record count negative");
    const int32_t size = p.getBlockBuffSize();
    require(size >= 0, "recorded buffer size negative");
    const uint8_t* data = p.getData();
    if (data == nullptr) {
      require(size == 0, "a recorded buffer size without a buffer");
    } else {
      touch(data, static_cast<size_t>(size));
      const int64_t allocated = allocatedSize(data);
      // Areas carry at most one zero byte beyond the records.
      require(allocated < 0 || allocated == size || allocated == int64_t{size} + 1,
              "recorded buffer size differs from the allocation");
    }
    require(p.getBlockDataLen() <= size, "block data length above the recorded buffer size");
    require(p.getBlockDataLen() >= 0, "block data length negative");
    require(p.getDynamicInputCnt() >= 0, "dynamic input count negative");
  }

  void readOut(const std::string& text) const { requireUtf8(text, "a read returned text that is not UTF-8"); }

  // The record read of drawn fields against the one-field appending read of each (differential): the same
  // bytes after the caller's, the same ends, the same answer.
  void recordRead(int32_t index) {
    const KXBlockDataProc& p = *proc_;
    std::vector<const FieldInfo*> fields(in_.byte() % 17);
    for (const FieldInfo*& f : fields) f = field();
    const uint8_t shape = in_.byte();
    const bool fewer = (shape & 2) != 0 && !fields.empty();
    std::vector<size_t> ends(fewer ? fields.size() - 1 : fields.size() + (shape & 1), 7);
    std::string out = (shape & 4) != 0 ? "caller's" : "";
    std::string expected = out;
    std::vector<size_t> expectedEnds(ends.size(), out.size());
    bool every = false;
    if (ends.size() >= fields.size() && p.getData() != nullptr && index >= 0 && index < p.getValidCount()) {
      every = true;
      for (size_t k = 0; k < fields.size(); ++k) {
        every = p.appendFieldDataFromInfo(fields[k], index, expected) && every;
        expectedEnds[k] = expected.size();
      }
      for (size_t k = fields.size(); k < ends.size(); ++k) expectedEnds[k] = 7;  // not the read's to set
    }
    const bool read = p.appendRecordDataFromInfo(index, fields, out, ends);
    require(out == expected, "the record read differs from the one-field reads");
    require(ends == expectedEnds, "the record read's field ends differ from the one-field reads");
    require(read == every, "the record read's answer differs from the one-field reads");
    readOut(out);
  }

  void noteStored(std::optional<std::string_view> v) {
    if (v && !utf8::isValid(*v)) dynamicUtf8_ = false;
  }

  // ---- operations ---------------------------------------------------------------------------------------

  void step(uint8_t op) {
    KXBlockDataProc& p = *proc_;
    switch (op % kOperations) {
      case 0:
        p.setEncodingType(encoding());
        break;
      case 1: {
        const uint8_t which = in_.byte() % 4;
        p.setBlockInfo(which == 0 ? nullptr : which == 1 && other_ ? other_.get() : main_.get());
        break;
      }
      case 2: {
        static constexpr int kParents = 5;
        BaseDataProc* parents[kParents] = {nullptr, &parentJson_, &parentFeed_, &parentOther_, &parentNone_};
        p.setDataProc(parents[in_.below(kParents)]);
        break;
      }
      case 3: {
        const std::string n(in_.shortBytes(24));
        if (in_.flag())
          p.setBlockName(n);
        else
          p.setM_szBlockName(n);
        require(p.getBlockName() == n, "block name not kept");
        break;
      }
      case 4:
        p.setValidCount(in_.number());
        break;
      case 5: {
        p.setReceived(in_.flag());
        (void)p.getReceived();
        (void)p.getValidCount();
        (void)p.getBlockRepCount();
        (void)p.isOccursBlock();
        (void)p.getEncodingType();
        require(p.calcPacketSize() >= 0, "packet size negative");
        break;
      }
      case 6: {
        auto& control = controls_[in_.below(std::size(controls_))];
        if (!control) control = std::make_shared<int>(0);
        if (in_.flag())
          p.addConnCtl(control);
        else
          p.removeConnCtl(control.get());
        require(p.getConnCtlList().size() <= std::size(controls_), "a control listed twice");
        break;
      }
      case 7: {
        const int32_t at = in_.number();
        if (in_.flag()) {
          p.addFieldLinkInfo(in_.flag() ? std::make_unique<FieldLinkInfo>(at) : nullptr);
          const bool inside = at >= 0 && at < p.getLinkCount();
          require((p.getLinkInfo(at) != nullptr) == inside, "field link lookup");
        } else {
          p.addRealAPLinkInfo(in_.flag() ? std::make_unique<RealAPLinkInfo>(at) : nullptr);
          const bool inside = at >= 0 && at < p.getRealAPLinkCount();
          require((p.getRealAPLinkInfo(at) != nullptr) == inside, "real-time link lookup");
        }
        break;
      }
      case 8:
        p.initRealBufferIndex();
        require(p.getValidCount() == 0, "real-time start keeps valid records");
        break;
      case 9: {
        const BlockInfo* b = p.getBlockInfo();
        if (b != nullptr) {
          const int64_t records = (b->m_nBlockType & kBlockTypeRepeat) != 0 ? b->m_nRepeatCount : 1;
          if (tooLarge(records * b->getRecordMemSize())) break;
        }
        p.DefaultMemory();
        break;
      }
      case 10: {
        const uint8_t how = in_.byte() % 3;
        if (how == 0) p.clearData();
        if (how == 1) p.wipeBuffer();
        if (how == 2) p.wipeBuffer(in_.number());
        require(p.getValidCount() == 0 && p.getDynamicInputCnt() == 0, "a wipe keeps records");
        break;
      }
      case 11: {
        const int64_t size = p.getBlockBuffSize();
        const int64_t lengths[] = {-1, 0, 1, 7, size - 1, size, size + 1, size * 2 + 3};
        const int64_t wanted = lengths[in_.below(std::size(lengths))];
        const int32_t length = wanted > kMaxArea ? 5 : static_cast<int32_t>(wanted);
        const uint8_t local[4] = {1, 2, 3, 4};
        const uint8_t which = in_.byte() % 3;
        const uint8_t* old = which == 0 ? p.getData() : which == 1 ? nullptr : local;
        auto area = p.reSizeBytes(old, length);
        require(area != nullptr, "reSizeBytes failed on a small length");
        const size_t n = static_cast<size_t>(std::max(length, 0));
        touch(area.get(), n + 1);
        require(area[n] == 0, "reSizeBytes area not closed by a zero byte");
        if (old == local && n > 0) require(area[0] == ' ', "reSizeBytes copied bytes of unknown size");
        break;
      }
      case 12: {
        const std::string_view n = name();
        const int32_t at = p.getFieldIndexFromName(n);
        const BlockInfo* b = p.getBlockInfo();
        if (at != -1) {
          require(b != nullptr && at >= 0 && at < b->getFieldCount(), "field position outside the block");
          require(b->getFieldInfoFromIndex(at)->szFieldName == n, "field position of another name");
        }
        const FieldInfo* f = p.findFieldInfo(n);
        require(f == nullptr || f->szFieldName == n, "field found under another name");
        (void)p.isAccountNoField(n);
        (void)p.isItemCodeField(n);
        (void)p.isPasswordField(n);
        break;
      }
      case 13: {
        if (in_.flag()) {
          p.setXmlInfo(nullptr);
          break;
        }
        const std::string_view xml = in_.shortBytes(64);
        auto doc = TBXML::newTBXMLWithXMLString(xml);
        if (doc) p.setXmlInfo(doc->rootXMLElement());
        break;
      }
      case 14: {
        const std::string_view text = in_.shortBytes(32);
        const std::string out = KXBlockDataProc::Entity2Ref(text);
        if (utf8::isValid(text)) requireUtf8(out, "Entity2Ref made UTF-8 invalid");
        require(out.size() <= text.size(), "Entity2Ref grew the text");
        break;
      }
      case 15: {
        Received r = received();
        if (receiveTooLarge(r.size)) break;
        require(p.setData(r.data, r.start, r.size), "setData returned false");
        break;
      }
      case 16: {
        Received r = received();
        if (receiveTooLarge(r.size)) break;
        require(p.setDataReverse(r.data, r.start, r.size), "setDataReverse returned false");
        break;
      }
      case 17: {
        Received r = received();
        if (receiveTooLarge(r.size) || (p.getData() == nullptr && tooLarge(99 * recordSize()))) break;
        (void)p.insertRealData(r.data, r.start, r.size);
        break;
      }
      case 18: {
        const BlockInfo* b = p.getBlockInfo();
        int64_t total = 0;
        for (int32_t i = 0; b != nullptr && i < b->getFieldCount(); ++i)
          total += std::max(b->getFieldInfoFromIndex(i)->nLength, 0);
        if (total > kMaxArea) break;
        auto send = std::make_unique<uint8_t[]>(static_cast<size_t>(total));
        p.getStructInputData(send.get());
        break;
      }
      case 19: {
        const auto text = p.getBlockData();
        if (text) readOut(*text);
        break;
      }
      case 20: {
        const FieldInfo* f = field();
        const int32_t i = index();
        const auto v = value();
        p.setFieldDataDynamicLen(f, i, v);
        if (f != nullptr) noteStored(v);
        break;
      }
      case 21: {
        const FieldInfo* f = field();
        const int32_t i = index();
        const std::string v = p.getFieldDataDynamicLen(f, i);
        FieldData data;
        (void)p.getFieldDataDynamicLen(f, i, data);
        if (dynamicUtf8_) {
          readOut(v);
          readOut(data.strData);
        }
        break;
      }
      case 22: {
        Received r = received();
        require(p.setDataDynamic(r.data, r.start, r.size), "setDataDynamic returned false");
        break;
      }
      case 23: {
        Received r = received();
        const void* from = r.data == nullptr ? nullptr : r.area.data() + r.start;
        if (r.area.size() == static_cast<size_t>(r.start)) from = r.data;  // nothing received
        require(p.resetDataDynamic(from, r.size), "resetDataDynamic returned false");
        break;
      }
      case 24:
        p.initDynamicRealBufferIndex();
        require(p.getStartIndex() == 0 && p.getValidCount() == 0, "dynamic restart");
        break;
      case 25: {
        const int32_t i = index();
        switch (in_.byte() % 6) {
          case 0:
            readOut(p.getFieldDataFromInfo(field(), i));
            break;
          case 4:
            recordRead(i);
            break;
          case 1:
            readOut(p.getFieldDataFromIndex(in_.number(), i));
            break;
          case 2:
            readOut(p.getFieldDataFromName(name(), i));
            break;
          case 3:
            readOut(p.getFieldDataFromInfoEX(field(), i));
            break;
          default:
            readOut(p.getFieldDataFromNameEX(name(), i));
            break;
        }
        break;
      }
      case 26:
        readOut(in_.flag() ? p.getFieldDataAllIdxFromInfo(field()) : p.getDataValueAllIdxFromName(name()));
        break;
      case 27: {
        const bool byName = in_.flag();
        const std::string_view n = name();
        const FieldInfo* f = field();
        const int32_t i = writableIndex();
        const auto v = value();
        const bool result = byName ? p.setFieldDataFromName(n, i, v) : p.setFieldDataFromInfo(f, i, v);
        require(!result, "a main writer returned true");
        break;
      }
      case 28: {
        const std::string_view text = in_.shortBytes(24);
        const std::string_view find = in_.shortBytes(4);
        const int32_t at = KXBlockDataProc::findIndex(text, find);
        if (utf8::isValid(text) && utf8::isValid(find)) {
          require(at >= -1 && at <= utf8::utf16Length(text), "findIndex outside the text");
          if (find.empty()) require(at == 0, "an empty string is found at 0");
        }
        break;
      }
      case 29: {
        const FieldInfo* f = field();
        const int32_t i = writableIndex();
        const auto v = value();
        const int32_t pos = in_.number();
        const int32_t next = p.setFieldDataExFromInfo(f, i, v, pos);
        if (f == nullptr) require(next == 0, "positional write without a field");
        break;
      }
      case 30: {
        const bool byName = in_.flag();
        const std::string_view n = name();
        const FieldInfo* f = field();
        const int32_t i = writableIndex();
        const uint8_t mode = in_.byte();
        const std::string text(in_.shortBytes(32));
        const char* v = mode < 16 ? nullptr : text.c_str();
        const bool result = byName ? p.setFieldDataFromNameEX(n, i, v) : p.setFieldDataFromInfoEX(f, i, v);
        require(!result, "a raw-text writer returned true");
        break;
      }
      case 31: {
        const FieldInfo* f = field();
        const int32_t i = index();
        const uint8_t v = in_.byte();
        switch (in_.byte() % 3) {
          case 0:
            (void)p.getFieldAttrFromInfo(f, i);
            break;
          case 1:
            p.setFieldAttrFromInfo(f, i, v);
            break;
          default:
            p.setFieldAttrFromName(name(), i, v);
            break;
        }
        break;
      }
      case 32: {
        const FieldInfo* f = field();
        const int32_t i = index();
        p.setFieldAttrHexa(f, i, value());
        break;
      }
      case 33: {
        const uint8_t a = KXBlockDataProc::getAttrValueFromData(static_cast<char>(in_.byte()));
        require(a == 0 || a == '1' || a == '3' || a == '5', "derived attribute outside its set");
        break;
      }
      case 34: {
        const FieldInfo* f = field();
        const int32_t i = index();
        FieldData data;
        if (in_.flag())
          (void)p.getFieldAttrFromInfo(f, i, data);
        else
          (void)p.getFieldDataFromInfo(f, i, data);
        readOut(data.strData);
        break;
      }
      default: {
        const std::string_view n = name();
        const int32_t i = index();
        (void)p.getFieldAttrFromName(n, i);
        const std::string enable = p.getFieldEnableFromName(n, i);
        require(!enable.empty() && enable.size() <= 4, "enable text");
        for (char c : enable) require((c >= '0' && c <= '9') || c == '-', "enable text is not a number");
        break;
      }
    }
  }

  FuzzInput& in_;
  FieldInfo stray_;  // a field of no block: callers may hand any definition in
  std::unique_ptr<FuzzBlock> main_, other_;
  TranInfo modeJson_, modeFeed_, modeOther_;
  BaseDataProc parentJson_{&modeJson_}, parentFeed_{&modeFeed_}, parentOther_{&modeOther_}, parentNone_;
  std::shared_ptr<void> controls_[3];
  bool dynamicUtf8_ = true;  // every dynamic value stored so far was UTF-8
  std::unique_ptr<KXBlockDataProc> proc_;
};

}  // namespace
}  // namespace blockproc::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  blockproc::fuzz::FuzzInput in(data, size);
  blockproc::fuzz::Run run(in);
  run.go();
  return 0;
}
