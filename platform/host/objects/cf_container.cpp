#include "platform/host/objects/cf_container.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/host/base/hash.h"
#include "platform/host/objects/cf_string.h"

namespace {

// ---- Destroying ----

// Containers of this thread whose last reference is gone. Set while the list is worked on.
struct Dying {
  HostContainer* first = nullptr;
};
constinit thread_local Dying* tDying = nullptr;

// ---- Comparing ----

// Containers that were taken to be equal already, in classes. Only containers with several
// references need to be entered: one with a single reference comes up as often as the container
// that it is in.
class EqualClasses {
 public:
  // Puts the two into one class. Returns false if they were in one class already.
  bool Join(const HostContainer* a, const HostContainer* b) {
    if (a->RetainCount() == 1 || b->RetainCount() == 1) return true;
    a = Leader(a);
    b = Leader(b);
    if (a == b) return false;
    leaders[a] = b;
    return true;
  }

 private:
  const HostContainer* Leader(const HostContainer* member) {
    for (auto found = leaders.find(member); found != leaders.end(); found = leaders.find(member)) {
      const auto next = leaders.find(found->second);
      if (next != leaders.end()) found->second = next->second;  // halves the path for the next one
      member = found->second;
    }
    return member;
  }

  std::unordered_map<const HostContainer*, const HostContainer*> leaders;
};

// Two containers are equal if no difference is found in anything inside them. This rule also covers
// containers that contain themselves.
class EqualWalk final : public HostEqualWalk {
 public:
  bool Run(const HostContainer& a, const HostContainer& b) {
    pending.emplace_back(&a, &b);
    while (!pending.empty()) {
      const auto [left, right] = pending.back();
      pending.pop_back();
      if (classes.Join(left, right) && !left->EqualOutside(*right, *this)) return false;
    }
    return true;
  }

  bool Compare(const HostItemCallbacks& callbacks, const void* a, const void* b) override {
    if (a == b) return true;
    const HostContainer* left = callbacks.ComparesObjects() ? HostCastContainer(a) : nullptr;
    if (left == nullptr) return callbacks.Equal(a, b);
    const HostContainer* right = HostCastContainer(b);
    if (right == nullptr || left->TypeID() != right->TypeID()) return false;
    pending.emplace_back(left, right);
    return true;
  }

 private:
  std::vector<std::pair<const HostContainer*, const HostContainer*>> pending;
  EqualClasses classes;
};

// Comparing containers calls itself for containers that are keys, and through foreign callbacks. A
// chain of keys this long is not useful, but it must not use up the stack.
constexpr int kMaxNestedWalks = 64;
constinit thread_local int tNestedWalks = 0;

// ---- Describing ----

constexpr size_t kMaxDescribedDepth = 64;
constexpr size_t kMaxDescribedUnits = 1 << 20;

class Description {
 public:
  CFStringRef Make(const HostContainer& root) {
    Open(root);
    while (!open.empty()) Step();
    return HostCFString::Create(
        HostTextView{nullptr, reinterpret_cast<const UniChar*>(text.data()), text.size()});
  }

 private:
  struct Frame {
    const HostContainer* container;
    size_t position;
  };

  bool IsFull() const { return text.size() > kMaxDescribedUnits; }
  void Indent() { text.append(4 * open.size(), u' '); }

  void Open(const HostContainer& container) {
    if (open.size() == kMaxDescribedDepth) {
      text += u"...";
      return;
    }
    text += container.KeyCallbacks() != nullptr ? u"{\n" : u"(\n";
    open.push_back({&container, 0});
  }

  void Step() {
    const HostContainer* container = open.back().container;
    const HostItemCallbacks* keyCallbacks = container->KeyCallbacks();
    HostContainer::Item item;
    if (IsFull() || !container->NextItem(open.back().position, item)) {
      open.pop_back();
      Indent();
      text += keyCallbacks != nullptr ? u"}" : u")";
      if (!open.empty()) text += u"\n";
      return;
    }
    Indent();
    if (keyCallbacks != nullptr) {
      PutLeaf(*keyCallbacks, item.key);
      text += u" = ";
    }
    const HostItemCallbacks& callbacks = container->ValueCallbacks();
    const HostContainer* inner =
        callbacks.DescribesObjects() ? HostCastContainer(item.value) : nullptr;
    const size_t depth = open.size();
    if (inner != nullptr)
      Open(*inner);
    else
      PutLeaf(callbacks, item.value);
    if (open.size() == depth) text += u"\n";
    if (IsFull()) text += u"...\n";
  }

  void PutLeaf(const HostItemCallbacks& callbacks, const void* value) {
    const HostContainer* inner = callbacks.DescribesObjects() ? HostCastContainer(value) : nullptr;
    if (inner != nullptr) return PutText(inner->KeyCallbacks() != nullptr ? "{...}" : "(...)");
    const HostRetained<const HostCFString> told(
        callbacks.copyDescription != nullptr
            ? callbacks.copyDescription(value)
            : CFStringCreateWithFormat(kCFAllocatorDefault, nullptr, CFSTR("<%p>"), value));
    if (told.Get() == nullptr) return PutText("...");
    const HostTextView units = told->Text();
    const size_t count = std::min(units.length, kMaxDescribedUnits);
    for (size_t i = 0; i < count; ++i) text += static_cast<char16_t>(units.At(i));
  }

  void PutText(const char* ascii) {
    while (*ascii != 0) text += static_cast<char16_t>(*ascii++);
  }

  std::vector<Frame> open;
  std::u16string text;
};

}  // namespace

const void* HostRetainObject(CFAllocatorRef, const void* value) { return CFRetain(value); }

const void* HostCopyString(CFAllocatorRef allocator, const void* value) {
  return CFStringCreateCopy(allocator, static_cast<CFStringRef>(value));
}

void HostReleaseObject(CFAllocatorRef, const void* value) { CFRelease(value); }

constinit const CFArrayCallBacks kCFTypeArrayCallBacks = {0, HostRetainObject, HostReleaseObject,
                                                          CFCopyDescription, CFEqual};
constinit const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {
    0, HostRetainObject, HostReleaseObject, CFCopyDescription, CFEqual, CFHash};
constinit const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks = {
    0, HostCopyString, HostReleaseObject, CFCopyDescription, CFEqual, CFHash};
constinit const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {
    0, HostRetainObject, HostReleaseObject, CFCopyDescription, CFEqual};

size_t HostContainerSize(size_t headSize, size_t count, size_t partSize) {
  if (count > INT32_MAX || count > (PTRDIFF_MAX - headSize) / partSize) return 0;
  return headSize + count * partSize;
}

const HostContainer* HostCastContainer(CFTypeRef ref) {
  const auto* object = static_cast<const HostCFObject*>(ref);
  if (object == nullptr) return nullptr;
  const CFTypeID type = object->TypeID();
  if (type != kHostTypeArray && type != kHostTypeDictionary) return nullptr;
  return static_cast<const HostContainer*>(object);
}

void HostContainer::LastRelease() {
  if (tDying != nullptr) {
    nextDying = std::exchange(tDying->first, this);
    return;
  }
  Dying dying{this};
  tDying = &dying;
  while (HostContainer* container = dying.first) {
    dying.first = container->nextDying;
    container->Destroy();
  }
  tDying = nullptr;
}

bool HostContainer::Equal(const HostCFObject& other) const {
  if (tNestedWalks == kMaxNestedWalks) return false;
  struct Nesting {
    Nesting() { ++tNestedWalks; }
    ~Nesting() { --tNestedWalks; }
  } nesting;
  return EqualWalk().Run(*this, static_cast<const HostContainer&>(other));
}

// Combines the number of items and the hashes of a few leaves. Leaves out inner containers, because
// the walk through one that contains itself would not end.
CFHashCode HostContainer::Hash() const {
  constexpr size_t kMaxHashed = 8;
  UInt64 sum = ItemCount();
  const HostItemCallbacks* keys = KeyCallbacks();
  const HostItemCallbacks& hashed = keys != nullptr ? *keys : ValueCallbacks();
  if (ItemCount() > kMaxHashed || !hashed.ComparesObjects()) return HostHashWord(sum);
  Item item;
  for (size_t position = 0; NextItem(position, item);) {
    const void* leaf = item.key != nullptr ? item.key : item.value;
    if (HostCastContainer(leaf) == nullptr) sum += UInt64{CFHash(leaf)} << 8;
  }
  return HostHashWord(sum);
}

CFStringRef HostContainer::CopyDescription() const { return Description().Make(*this); }
