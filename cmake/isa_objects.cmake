# add_isa_objects(OUT SOURCE...): compiles the kernel sources once per instruction set, under the names of
# src/ipps_kernels.h, and sets OUT to the objects, for target_sources.
function(add_isa_objects out)
    set(flags_sse41 -msse4.1)
    set(flags_avx2 -mavx2 -mfma)
    set(flags_avx512 -mavx512f -mavx512vl -mavx512bw -mavx512dq -mavx2 -mfma)
    set(objects "")
    foreach(isa sse41 avx2 avx512)
        add_library(tq_kernels_${isa} OBJECT ${ARGN})
        target_link_libraries(tq_kernels_${isa} PRIVATE tq_flags)
        target_include_directories(tq_kernels_${isa} PRIVATE ${CMAKE_SOURCE_DIR}/src)
        target_compile_options(tq_kernels_${isa} PRIVATE ${flags_${isa}})
        # The long straight-line transforms would take GCC minutes each with all checks on every register.
        if(TQ_SANITIZE MATCHES address)
            target_compile_options(tq_kernels_${isa} PRIVATE
                -fno-sanitize=undefined -fno-sanitize-address-use-after-scope --param asan-stack=0)
        endif()
        target_compile_definitions(tq_kernels_${isa} PRIVATE TQ_ISA=${isa})
        set_target_properties(tq_kernels_${isa} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
        list(APPEND objects $<TARGET_OBJECTS:tq_kernels_${isa}>)
    endforeach()
    set(${out} ${objects} PARENT_SCOPE)
endfunction()
