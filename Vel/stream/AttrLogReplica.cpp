#include "Vel/stream/AttrLogReplica.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/internal/AttrLogReplicaImpl.h"
#include "Vel/stream/internal/StreamProtocol.h"

namespace Vel {

using NboAttrLog::Compact;
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
std::size_t AttrLogReplica::unansweredWrites() const { return impl_->writes().size(); }

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

// --- changes that are asked for ---

struct AttrLogReplica::Request {
    Entity const& entity;
    AttributeId attribute;
    ValueRef const* key = nullptr;    // of a collection
    ValueRef const* value = nullptr;  // null: the key is to go
    bool isConditional = false;
    ValueRef const* expected = nullptr;  // if it is conditional; null: the key must not be there
};

void AttrLogReplica::write(Entity const& entity, AttributeId attribute, ValueRef value, WriteTold told) {
    send({entity, attribute, nullptr, &value}, std::move(told));
}

void AttrLogReplica::writeIf(
    Entity const& entity, AttributeId attribute, ValueRef expected, ValueRef value, WriteTold told) {
    send({entity, attribute, nullptr, &value, true, &expected}, std::move(told));
}

void AttrLogReplica::writeKey(
    Entity const& entity, AttributeId attribute, ValueRef key, ValueRef value, WriteTold told) {
    send({entity, attribute, &key, &value}, std::move(told));
}

void AttrLogReplica::writeKeyIf(Entity const& entity, AttributeId attribute, ValueRef key, ValueRef const* expected,
    ValueRef value, WriteTold told) {
    send({entity, attribute, &key, &value, true, expected}, std::move(told));
}

void AttrLogReplica::deleteKey(Entity const& entity, AttributeId attribute, ValueRef key, WriteTold told) {
    send({entity, attribute, &key}, std::move(told));
}

void AttrLogReplica::send(Request const& request, WriteTold told) {
    Entity const& entity = request.entity;
    AttributeId const id = request.attribute;
    if (!mayWrite()) throw ReadOnlyException(entity.path() + " is mounted read-only and takes no changes");
    EntityId const target = impl_->entities().idOf(&entity);
    StreamAttribute const* const attribute = target == 0 ? nullptr : impl_->entities().known(target).table->find(id);
    if (!attribute || attribute->kind != (request.key ? StreamKind::values : StreamKind::value))
        throwRangeException(format("%s has no %s %u that its source sends", entity.path().charPtr(),
            request.key ? "collection of values" : "value", id));
    VelType const type = attribute->type();
    for (ValueRef const* const value : {request.value, request.expected})
        if (value && value->type() != type) GenericIfImpl::throwTypeException(value->type());
    if (request.key && request.key->type() != entity.fwkType().attributeOfId(id)->keyType())
        GenericIfImpl::throwTypeException(request.key->type());
    if (impl_->writes().size() >= ReplicaWrites::most)
        throwRangeException(format("%zu changes wait for their answers already", ReplicaWrites::most));

    U32 const number = impl_->writes().add(type, std::move(told));
    sendControl(MessageKind::write, 0, [&](Out& out) {
        auto const ops = static_cast<U8>((request.value ? 0 : static_cast<unsigned>(WriteOp::del)) |
                                         (request.isConditional ? static_cast<unsigned>(WriteOp::expected) : 0));
        out << Compact{number} << ops << Compact{target} << Compact{id};
        if (request.key) attribute->writeKey(out, request.key->data());
        if (request.isConditional) out << (request.expected != nullptr);
        for (ValueRef const* const value : {request.expected, request.value})
            if (value) type.glue().write(out, value->data());
    });
}

}  // namespace Vel
