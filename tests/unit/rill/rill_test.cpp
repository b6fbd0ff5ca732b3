// The broker's building blocks: paths, the object model, the wire format, and dynstr.
#include <gtest/gtest.h>

#include <limits>
#include <memory>

#include "host/rill/model.h"
#include "host/rill/path.h"
#include "host/rill/wire.h"
#include "platform/dynstr.h"
#include "platform/rill.h"

namespace zibd::rill {
namespace {

Path object(const std::string& text) { return parseObjectPath(text).value(); }  // a bad one throws: a failure
Path pattern(const std::string& text) { return parsePattern(text).value(); }
std::string deep(size_t segments) {  // an object path of that many segments
  std::string text = "A.1";
  while (--segments > 0) text += ".A.1";
  return text;
}

// Every object above an object exists too, so depth costs its square: at most
// kMaxSegments segments, not counting a parameter name after them.
TEST(RillPathTest, RejectsMalformedAndTooDeepPaths) {
  for (const std::string& bad : std::vector<std::string>{
           "", ".", "Storage.", ".Storage", "Storage..Disk", "1.Storage", "Storage.Disk.1.2", "Storage.Disk.01",
           "Storage.Disk.-1", "Storage.Di sk", "Storage.Disk.99999999999", "Storage.*.3", "Storage/Disk",
           std::string(kMaxPathLength + 1, 'a'), deep(kMaxSegments) + ".*"}) {
    EXPECT_FALSE(parsePattern(bad)) << bad;
  }
  EXPECT_FALSE(parseObjectPath("Storage.*.Partition"));  // a pattern names no single object
  EXPECT_FALSE(parseObjectPath(deep(kMaxSegments + 1)));
  EXPECT_TRUE(parseObjectPath(deep(kMaxSegments)));
  EXPECT_TRUE(parsePattern(deep(kMaxSegments - 1) + ".*"));
  EXPECT_TRUE(parseParamPath(deep(kMaxSegments) + ".P"));
  EXPECT_EQ(format(parseParamPath("Storage.Disk.1.Partition.2.Status")->object), "Storage.Disk.1.Partition.2");
  for (const std::string& bad :
       std::vector<std::string>{"Storage.Disk.1", "Manageddisk", "Storage.*.Status", deep(kMaxSegments + 1) + ".P"})
    EXPECT_FALSE(parseParamPath(bad)) << bad;
}

TEST(RillPathTest, ClassesMatchTheirInstancesOnly) {
  struct Case {
    const char* pattern;
    const char* object;
    bool matches, at_or_below;
  };
  for (const Case& c : std::vector<Case>{
           {"Storage.Disk", "Storage.Disk.1", true, true},
           {"Storage.Disk", "Storage.Disk.1.Partition.2", false, true},  // below a disk is not a disk
           {"Storage.Disk.Partition", "Storage.Disk.1.Partition.2", true, true},
           {"Storage.*.Partition", "Storage.Disk.1.Partition.2", true, true},
           {"Storage.Disk.1.Partition", "Storage.Disk.1.Partition.2", true, true},
           {"Storage.Disk.2.Partition", "Storage.Disk.1.Partition.2", false, false},
           {"Storage.*", "Storage.Disk.1.Partition.2", false, true},
           {"VFS.MetaDataService", "VFS.MetaDataService", true, true},
           {"Storage.Disk.1", "Storage.Disk.10", false, false},
           {"Storage.Disk.1.Partition.2", "Storage.Disk.1", false, false},
       }) {
    EXPECT_EQ(matches(pattern(c.pattern), object(c.object)), c.matches) << c.pattern << " " << c.object;
    EXPECT_EQ(matchesAtOrBelow(pattern(c.pattern), object(c.object)), c.at_or_below) << c.pattern << " " << c.object;
  }
}

TEST(RillModelTest, AddImpliesParentsSetTellsChangesAndRemoveTakesTheSubtree) {
  Model model;
  auto created = model.add(object("Storage.Disk.1.Partition.2"), {{"Status", "1"}, {"MountPoint", "/m"}});
  ASSERT_EQ(created.size(), 3u);  // outermost first
  EXPECT_EQ(format(created[0]), "Storage");
  EXPECT_EQ(format(created[2]), "Storage.Disk.1.Partition.2");
  EXPECT_EQ(model.find(created[2])->params.size(), 2u);
  EXPECT_TRUE(model.add(object("Storage.Disk.1.Partition.2"), {}).empty()) << "exists already";
  const Path partition = created[2];
  EXPECT_EQ(model.set(partition, "Status", "1"), Model::SetResult::kUnchanged);
  EXPECT_EQ(model.set(partition, "Status", "0"), Model::SetResult::kChanged);
  EXPECT_EQ(model.set(partition, "Label", "x"), Model::SetResult::kChanged) << "a new parameter";
  EXPECT_EQ(model.set(object("VFS.Other"), "X", "1"), Model::SetResult::kNoObject);
  EXPECT_EQ(model.find(partition)->params.at("Status"), "0");
  model.add(object("Storage.Disk.1.Partition.3"), {});
  model.add(object("Storage.Disk.10.Partition.1"), {});  // shares the text prefix "Storage.Disk.1"
  model.add(object("Storage.Disk.2"), {});
  std::vector<std::string> disks;
  for (const auto& [path, obj] : model.match(pattern("Storage.Disk"))) disks.push_back(format(*path));
  EXPECT_EQ(disks, (std::vector<std::string>{"Storage.Disk.1", "Storage.Disk.2", "Storage.Disk.10"}));
  EXPECT_EQ(model.matchAtOrBelow(pattern("Storage.Disk.1")).size(), 3u);
  auto removed = model.remove(object("Storage.Disk.1"));
  ASSERT_EQ(removed.size(), 3u);
  EXPECT_EQ(format(removed.back()), "Storage.Disk.1") << "children go before their parent";
  EXPECT_TRUE(model.find(object("Storage.Disk.10.Partition.1")));
  EXPECT_FALSE(model.find(object("Storage.Disk.1.Partition.3")));
  EXPECT_TRUE(model.remove(object("Storage.Disk.1")).empty());
}

TEST(RillModelFileTest, SeedsObjectsFromLinesOrNamesTheFirstBadOne) {
  Model model;
  std::string error;
  ASSERT_TRUE(loadModel("# comment\n\n  \nStorage.Disk.1.CapacityInMBytes=953869\r\n"
                        "ContentSharing.UPnPAV.IndexRules.1.PartitionName=Family disk\n"
                        "VFS.MetaDataService.Formula=a=b\nVFS.MetaDataService.Empty=",
                        &model, &error))
      << error;
  EXPECT_EQ(model.find(object("Storage.Disk.1"))->params.at("CapacityInMBytes"), "953869");
  EXPECT_EQ(model.find(object("ContentSharing.UPnPAV.IndexRules.1"))->params.at("PartitionName"), "Family disk");
  const auto& service = model.find(object("VFS.MetaDataService"))->params;
  EXPECT_EQ(service.at("Formula"), "a=b");
  EXPECT_EQ(service.at("Empty"), "");
  EXPECT_TRUE(model.find(object("Storage"))) << "objects above are implied";
  EXPECT_TRUE(loadModel(deep(kMaxSegments) + ".P=1\n", &model, &error)) << error;
  for (const auto& [text, line] : std::vector<std::pair<std::string, std::string>>{
           {"A.B=1\n# ok\nno equals sign\n", "line 3:"},
           {"A.B=1\nStorage.Disk.1=5\n", "line 2:"},
           {"Bad..Path.X=1\n", "line 1:"},
           {"X.P=1\n" + deep(kMaxSegments + 1) + ".P=1\n", "line 2:"},
       }) {
    Model fresh;
    EXPECT_FALSE(loadModel(text, &fresh, &error)) << text;
    EXPECT_EQ(error.rfind(line, 0), 0u) << error;
  }
}

// An empty value is present, not absent; numbers take their full width.
const Request kRequest{Op::kAddObject, 0x01020304, "Storage.Disk.1.Partition.2", "Manageddisk", "", -2,
                       {{"MountPoint", "/var/uuidmount/ab12"}, {"Status", "1"}}};
const Reply kReply{77, Status::kNoSuchObject, "no such object: X.1", int64_t{1} << 40,
                   {Item{"Storage.Disk.1", "CapacityInMBytes", "953869", 0}, Item{std::nullopt, std::nullopt, "v", 3}}};
const Notification kNotification{kEventValue, 0xfffffffe,
                                  {Item{"ContentSharing.UPnPAV.IndexRules.3", "Enable", "0", 0}}};
const std::vector<Message> kSamples = {kRequest, kReply, kNotification};

std::string payloadOf(const std::string& frame) { return frame.substr(kFrameHeader); }

TEST(RillWireTest, FramesAreBigEndianWhateverTheHost) {
  const std::string frame = encode(Reply{0x0a0b0c0d, Status::kOk, "", 0, {}});
  const uint32_t size = static_cast<uint32_t>(frame.size() - kFrameHeader);
  EXPECT_EQ(static_cast<uint8_t>(frame[0]), size >> 24);
  EXPECT_EQ(static_cast<uint8_t>(frame[3]), size & 0xff);
  EXPECT_EQ(frame[4], 2);  // kind: reply
  EXPECT_EQ(frame.substr(5, 4), std::string("\x0a\x0b\x0c\x0d", 4));
}

TEST(RillWireTest, EveryMessageKindSurvivesARoundTripButNotTruncationOrExtension) {
  for (const Message& message : kSamples) {
    const std::string payload = payloadOf(encode(message));
    EXPECT_EQ(decode(payload), std::optional<Message>(message));
    for (size_t size = 0; size < payload.size(); ++size)
      EXPECT_FALSE(decode(payload.substr(0, size))) << "prefix of " << size << " bytes";
    EXPECT_FALSE(decode(payload + '\0'));
  }
}

TEST(RillWireTest, HostileFieldsAreRejected) {
  const std::string request = payloadOf(encode(kRequest));
  Request with_nul = kRequest;  // a string with a NUL byte cannot be handed to C callers
  with_nul.path = std::string("Storage\0Disk", 12);
  std::string bad_flag = payloadOf(encode(kNotification));
  bad_flag[13] = 2;  // the first item's optional-path flag, after kind, event, id and count
  for (const std::string& bad : {
           request.substr(0, 1) + static_cast<char>(kLastOp + 1) + request.substr(2),  // unknown op
           '\x09' + request.substr(1),                                                   // unknown kind
           payloadOf(encode(with_nul)), bad_flag,
           std::string("\x03\0\0\0\x03\0\0\0\x01\xff\xff\xff\xff", 13),  // a count far beyond the bytes: no allocation
           std::string("\x02\0\0\0\x01\0\0\0\0\x7f\xff\xff\xff", 13),    // a string length likewise
       }) {
    EXPECT_FALSE(decode(bad)) << testing::PrintToString(bad);
  }
}

TEST(RillFrameReaderTest, CutsFramesFromArbitraryChunksAndRefusesEmptyOrOversizedOnes) {
  const std::string stream = encode(kRequest) + encode(kReply) + encode(kNotification);
  FrameReader reader;
  std::vector<Message> received;
  std::string payload;
  for (char byte : stream) {  // one byte at a time: the worst split there is
    reader.append(&byte, 1);
    while (reader.next(&payload) == FrameReader::Result::kFrame) received.push_back(*decode(payload));
  }
  EXPECT_EQ(received, kSamples);
  EXPECT_EQ(reader.buffered(), 0u);
  reader.append(stream.data(), stream.size());  // all at once
  for (int i = 0; i < 3; ++i) EXPECT_EQ(reader.next(&payload), FrameReader::Result::kFrame);
  EXPECT_EQ(reader.next(&payload), FrameReader::Result::kNeedMore);
  const uint32_t size = kMaxFrame + 1;
  for (const auto& [bytes, result] : std::vector<std::pair<std::string, FrameReader::Result>>{
           {{static_cast<char>(size >> 24), static_cast<char>(size >> 16), static_cast<char>(size >> 8),
             static_cast<char>(size)}, FrameReader::Result::kBad},
           {std::string("\0\0\0\0", 4), FrameReader::Result::kBad},
           {std::string("\0\0\0\x05xy", 6), FrameReader::Result::kNeedMore}}) {
    FrameReader fresh;
    fresh.append(bytes.data(), bytes.size());
    EXPECT_EQ(fresh.next(&payload), result) << testing::PrintToString(bytes);
  }
}

using Str = std::unique_ptr<dynstr_t, decltype(&dynstr_free)>;
Str str(const std::string& text) { return Str(dynstr_fromstring(rill_dynstr_poolid(), text.c_str()), dynstr_free); }

// Parses text as 'b'ool, 'l'ong or 'u'nsigned long into a variable that starts
// at 7; the variable as text, or "fail(7)" when the parse failed and left it alone.
std::string parse(char kind, const std::string& text) {
  Str s = str(text);
  int b = 7;
  long l = 7;
  unsigned long ul = 7;
  const int rc = kind == 'b' ? dynstr_getbool(s.get(), &b) : kind == 'l' ? dynstr_getlong(s.get(), &l)
                                                                         : dynstr_getulong(s.get(), &ul);
  const std::string value = kind == 'b' ? std::to_string(b) : kind == 'l' ? std::to_string(l) : std::to_string(ul);
  return rc == 0 ? value : "fail(" + value + ")";
}

TEST(RillDynstrTest, BooleansAndNumbersAreWholeTexts) {
  const std::string long_max = std::to_string(std::numeric_limits<long>::max());
  const std::string ulong_max = std::to_string(std::numeric_limits<unsigned long>::max());
  std::vector<std::tuple<char, std::string, std::string>> cases = {
      {'l', "-42", "-42"}, {'l', long_max, long_max}, {'u', "734003200", "734003200"}, {'u', ulong_max, ulong_max},
      {'l', long_max + "0", "fail(7)"}, {'u', ulong_max + "0", "fail(7)"}, {'u', "-1", "fail(7)"},
      {'u', "-0", "fail(7)"}, {'u', "5 ", "fail(7)"}, {'u', "", "fail(7)"}};
  for (const char* yes : {"1", "true", "TRUE", "Yes", "on", "oN"}) cases.push_back({'b', yes, "1"});
  for (const char* no : {"0", "false", "No", "OFF"}) cases.push_back({'b', no, "0"});
  for (const char* bad : {"", "2", "truex", " true", "y", "enabled", "01"}) cases.push_back({'b', bad, "fail(7)"});
  for (const char* bad : {"", "12a", " 12", "0x10", "+5", "1.5"}) cases.push_back({'l', bad, "fail(7)"});
  for (const auto& [kind, text, result] : cases) EXPECT_EQ(parse(kind, text), result) << kind << " '" << text << "'";
  int b = 0;
  long l = 0;  // both left failing on a NULL string
  EXPECT_TRUE(dynstr_getbool(nullptr, &b) != 0 && dynstr_getlong(nullptr, &l) != 0);
}

TEST(RillDynstrTest, ComparisonsAndNulls) {
  Str up = str("Up");
  EXPECT_EQ(dynstr_strcmp2(up.get(), "Up"), 0);
  EXPECT_LT(dynstr_strcmp2(up.get(), "Zz"), 0);
  EXPECT_LT(dynstr_strcmp2(nullptr, ""), 0) << "a NULL string sorts below every text";
  EXPECT_EQ(dynstr_getstring(nullptr), nullptr);
  EXPECT_EQ(dynstr_fromstring(rill_dynstr_poolid(), nullptr), nullptr);
  EXPECT_EQ(llist_getlength(nullptr), 0);
  EXPECT_EQ(rill_cmddata_getat(nullptr, 0), nullptr);
}

}  // namespace
}  // namespace zibd::rill
