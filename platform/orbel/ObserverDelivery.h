// Delivery of one change to a list of observers, the way every notifier of the framework
// does it: in registration order, through a snapshot, with failures contained.
//
//   Orbel::deliverToObservers<MyNotifiee>(observers_, attributeId,
//                                         [](MyNotifiee& n) { n.onThing(); });
#pragma once

#include "Entity.h"
#include "PtrInterface.h"

#include <vector>

namespace Orbel {

// Calls f on every observer in list (an intrusive list with count(), first() and next(n)),
// in registration order, through a snapshot that holds a reference to each: observers may
// leave or join the list while it runs (those that join hear the next change). An observer
// released by everyone else meanwhile is skipped. A throw from f is reported to that
// observer as onNotificationException(id), and one from that handler is dropped; every
// other observer still hears the change and nothing escapes.
template <class Observer, class List, class F>
void deliverToObservers(List& list, AttributeId id, F&& f) {
    if (list.count() == 0) return;
    std::vector<Ptr<Observer>> snapshot;
    snapshot.reserve(list.count());
    for (Observer* n = list.first(); n; n = list.next(n)) snapshot.emplace_back(n);
    for (auto& n : snapshot) {
        if (n->references() == 1) { // only the snapshot holds it: released meanwhile
            n = nullptr;
            continue;
        }
        try {
            f(*n);
        } catch (...) {
            try {
                n->onNotificationException(id);
            } catch (...) {
                // An observer's exception handler may not stop delivery either.
            }
        }
        n = nullptr;
    }
}

} // namespace Orbel
