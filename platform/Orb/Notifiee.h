#pragma once

#include <cstddef>
#include <vector>

#include "Brio/Brio.h"

namespace Orb {

template <class Notifier>
class NotifieeList;

// Base of every entity's nested Notifiee class. A notifiee registers with at most one
// notifier at a time and unregisters itself when it goes away, so a notifier never calls
// into a destroyed object.
template <class Notifier>
class BaseNotifiee {
 public:
   BaseNotifiee() = default;
   BaseNotifiee(const BaseNotifiee&) = delete;
   BaseNotifiee& operator=(const BaseNotifiee&) = delete;
   virtual ~BaseNotifiee() { notifierIs(nullptr); }

   Notifier* notifier() const { return notifier_; }
   void notifierIs(Notifier* notifier) {
      if (notifier == notifier_) return;
      if (notifier_) notifier_->notifieeList().del(this);
      notifier_ = notifier;
      if (notifier_) notifier_->notifieeList().add(this);
   }

 private:
   Notifier* notifier_ = nullptr;
};

// The notifiees of one entity. Delivery is synchronous, in registration order, and survives
// a notifiee removing itself (or another) during delivery: removed slots are blanked and
// compacted once the outermost delivery ends. Notifiees added during a delivery see the next
// one, not the current one.
template <class Notifier>
class NotifieeList {
 public:
   using Base = BaseNotifiee<Notifier>;

   void add(Base* notifiee) { list_.push_back(notifiee); }
   void del(Base* notifiee) {
      for (auto& slot : list_) {
         if (slot != notifiee) continue;
         slot = nullptr;
         blanks_ = true;
      }
      if (depth_ == 0) compact();
   }
   std::size_t size() const {
      std::size_t n = 0;
      for (auto* slot : list_) n += slot != nullptr;
      return n;
   }
   // Slots are blanked only during a delivery, so an empty vector is the common quick answer.
   bool empty() const { return list_.empty() || size() == 0; }

   // Calls fn(notifiee) for each registered notifiee, cast to the notifier's nested
   // Notifiee type.
   template <class Fn>
   void forEach(Fn&& fn) {
      DepthGuard guard(*this);
      const std::size_t n = list_.size();
      for (std::size_t i = 0; i < n; ++i) {
         if (Base* slot = list_[i]) fn(static_cast<typename Notifier::Notifiee&>(*slot));
      }
   }

   // notify(&Notifiee::onX, args...) calls the reactor on every notifiee.
   template <class Method, class... Args>
   void notify(Method method, const Args&... args) {
      forEach([&](auto& notifiee) { (notifiee.*method)(args...); });
   }

 private:
   struct DepthGuard {
      explicit DepthGuard(NotifieeList& list) : list_(list) { ++list_.depth_; }
      ~DepthGuard() {
         if (--list_.depth_ == 0) list_.compact();
      }
      NotifieeList& list_;
   };

   void compact() {
      if (!blanks_) return;
      std::erase(list_, nullptr);
      blanks_ = false;
   }

   std::vector<Base*> list_;
   unsigned depth_ = 0;
   bool blanks_ = false;
};

}  // namespace Orb
