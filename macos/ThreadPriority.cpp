#include "Quillvane/ThreadPriority.h"

#include <pthread/qos.h>

void useUtilityPriority() noexcept {
    pthread_set_qos_class_self_np(QOS_CLASS_UTILITY, 0);
}
