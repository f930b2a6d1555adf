// Builds a small attribute tree, changes it on layers and through an alias, runs one host update,
// and prints what the listeners saw. Synchronisation between processes comes in a later example.
#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"
#include "tamarack/Reference.h"

#include <cstdio>

using namespace Tamarack;

int main()
{
    Reference receiver; // identity of this program's tree listeners
    Node root;
    root.eventAttributeAdded.addListener(receiver.weak(), [](Attribute *a) {
        std::printf("added   %s\n", a->name().constData());
    });

    Node *scene = new Node(&root, "scene");
    auto *speed = new AttributeT<float>(scene, "speed", 1.0f);
    auto *alias = new AttributeAlias(&root, "currentSpeed", speed);

    speed->addListener([speed] {
        std::printf("speed   %g (layer %d)\n", speed->value(), int(speed->currentLayer()));
    }, Attribute::CHANGE_ROLE);
    alias->addListener([alias] {
        auto *target = dynamic_cast<AttributeT<float> *>(alias->attribute());
        std::printf("alias   -> %s\n", target ? qPrintable(target->asString()) : "(none)");
    }, Attribute::CHANGE_ROLE);

    speed->setValue(2.5f, Attribute::LAYER_USER); // becomes current: one change at both
    speed->setValue(4.0f, Attribute::LAYER_1);    // below the current layer: stored silently
    speed->setValue(2.5f, Attribute::LAYER_USER); // same value: silent
    speed->clearValue(Attribute::LAYER_USER);     // falls back to LAYER_1: 4
    std::printf("changed %s\n", speed->isChanged() ? "yes" : "no");

    Node::invokeAfterUpdate([speed] {
        std::printf("update  speed is %g\n", speed->value());
        speed->setValue(0.0f, Attribute::LAYER_USER);
    });
    std::printf("-- host update\n");
    Node::runHostUpdate();

    std::printf("-- deleting speed\n");
    delete speed; // the alias drops its target and tells its listeners
    return 0;
}
