#include "operators/collideKernels.h"

#include "model/simd4.h"
#include "operators/collideLanes.h"

namespace corvelle {

const CollideKernels& collideKernels(SplineLanes lanes) {
    static const CollideKernels four = collideKernelsOver<Float4>();
    static const CollideKernels* const eight = collideKernelsAvx2();
    static const CollideKernels* const sixteen = collideKernelsAvx512();
    if (sixteen && (lanes == SplineLanes::Widest || lanes == SplineLanes::Sixteen)) return *sixteen;
    return eight && lanes != SplineLanes::Four ? *eight : four;
}

}  // namespace corvelle
