#include "Vel/stream/AttrLogReplica.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/internal/AttrLogReplicaImpl.h"
#include "Vel/stream/internal/StreamProtocol.h"

namespace Vel {

using NboAttrLog::Compact;
using NboAttrLog::compactSize;
using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::Out;

AttrLogReplica::AttrLogReplica(Ptr<Entity> root, Options options)
    : StreamPeer(options.limits),
      path_(std::move(options.path)),
      wantsToWrite_(options.wantsToWrite),
      impl_(std::make_unique<Impl>(std::move(root), nullptr, String(), limits())) {}
AttrLogReplica::AttrLogReplica(Ptr<Dir> parent, String name, Options options)
    : StreamPeer(options.limits),
      path_(std::move(options.path)),
      wantsToWrite_(options.wantsToWrite),
      impl_(std::make_unique<Impl>(nullptr, std::move(parent), std::move(name), limits())) {}
AttrLogReplica::~AttrLogReplica() = default;

AttrLogReplica::State AttrLogReplica::state() const { return impl_->state(); }
void AttrLogReplica::onStateIs(std::function<void(State)> told) { impl_->onStateIs(std::move(told)); }
Ptr<Entity> AttrLogReplica::root() const { return impl_->root(); }
bool AttrLogReplica::mayWrite() const { return impl_->mayWrite(); }
std::size_t AttrLogReplica::entities() const { return impl_->entities().count(); }
std::size_t AttrLogReplica::copySize() const { return impl_->entities().size(); }

void AttrLogReplica::connected() {
    reset();
    Out& out = controlOut().begin(MessageKind::hello, 0);
    auto const modules = Registry::modules();
    out << streamMagic << streamVersion << wantsToWrite_ << path_ << static_cast<U32>(modules.size());
    for (ModuleHeader const* const module : modules) {
        VelType const any(module, 0);
        out << String(any.moduleName()) << any.moduleFingerprint();
    }
    controlOut().commit();
    impl_->connected();
}

void AttrLogReplica::closed(String const& reason) {
    StreamPeer::closed(reason);
    impl_->disconnected();
}

void AttrLogReplica::handleMessage(MessageKind kind, In& body) { impl_->handleMessage(kind, body); }

void AttrLogReplica::write(Entity const& entity, AttributeId id, VelType type, void const* value) {
    if (!mayWrite()) throw ReadOnlyException(entity.path() + " is mounted read-only and takes no changes");
    EntityId const target = impl_->entities().idOf(&entity);
    StreamAttribute const* const attribute = target == 0 ? nullptr : impl_->entities().known(target).table->find(id);
    if (!attribute || attribute->kind != StreamKind::value)
        throwRangeException(format("%s has no value %u that its source sends", entity.path().charPtr(), id));
    if (type != attribute->type()) GenericIfImpl::throwTypeException(type);
    std::size_t const size = compactSize(target) + compactSize(id) + type.glue().attrLogSize(value);
    sendControl(MessageKind::write, size, [&](Out& out) {
        out << Compact{target} << Compact{id};
        type.glue().write(out, value);
    });
}

}  // namespace Vel
