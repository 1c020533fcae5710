// Handles, instances and pools against the test adapter.
#include "lifecycle_fixture.h"

namespace {

using LifecycleHandles = Lifecycle;

TEST_F(LifecycleHandles, InitEndAndPelCleanupOnlyWithTheLastHandle) {
    MAV_HANDLE a = Start();
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(MAV_REC_HANDLE, MavIXRecKind(a));
    EXPECT_EQ(1u, pel.calls(TPEL_GETCONFIG));
    EXPECT_EQ(0u, pel.calls(TPEL_INIT));          // no instance yet
    MAV_HANDLE b = Start(), c = Start();
    EXPECT_EQ(3u, MavIXGetHdlSize());
    EXPECT_EQ(3u, pel.calls(TPEL_STARTUP));
    EXPECT_EQ(MAV_OK, MavEnd(&b));
    EXPECT_EQ(MAV_OK, MavEnd(&a));
    EXPECT_EQ(nullptr, a);
    EXPECT_EQ(2u, pel.calls(TPEL_END));
    EXPECT_EQ(0u, pel.calls(TPEL_CLEANUP));
    EXPECT_EQ(MAV_OK, MavEnd(&c));
    EXPECT_EQ(3u, pel.calls(TPEL_END));
    EXPECT_EQ(1u, pel.calls(TPEL_CLEANUP));
}

// Stale records: tests/robust's table of things that are not handles.
TEST_F(LifecycleHandles, EndAndCreateArguments) {
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavEnd(nullptr));
    MAV_HANDLE none = nullptr;
    EXPECT_EQ(MAV_OK, MavEnd(&none));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavInit(pel.path(), nullptr));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavFreeInstance(nullptr));
    MAV_INST inst = nullptr;
    EXPECT_EQ(MAV_OK, MavFreeInstance(&inst));
    MAV_HANDLE h = Start();
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavCreateInstance(nullptr, &inst));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavCreateInstance(h, nullptr));
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &inst));
    ASSERT_EQ(MAV_OK, MavFreeInstance(&inst));  // pool size 0: ended
    EXPECT_EQ(nullptr, inst);
    ASSERT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(2u, pel.calls(TPEL_END));  // the instance's and the handle's
}

using LifecycleInstances = Lifecycle;

TEST_F(LifecycleInstances, EveryPoolSizeCreateFreeEnd) {
    for (size_t pool = 0; pool <= 3; ++pool) {
        SCOPED_TRACE(pool);
        pel.reset();
        MAV_HANDLE h = Start();
        ASSERT_EQ(MAV_OK, MavSetPoolSize(h, pool));
        MAV_INST inst[5] = {};
        for (MAV_INST& i : inst) ASSERT_EQ(MAV_OK, MavCreateInstance(h, &i));
        EXPECT_EQ(5u, Rec(h)->uiInstances);
        EXPECT_EQ(pool, Rec(h)->uiPooled);
        EXPECT_EQ(5, pel.live_inits());
        EXPECT_EQ(MAV_E_IN_PROGRESS, MavEnd(&h));
        // Free the listed ones in creation order, the middle first.
        for (int k : {2, 0, 4, 1, 3}) EXPECT_EQ(MAV_OK, MavFreeInstance(&inst[k]));
        EXPECT_EQ(nullptr, Rec(h)->pInstList);
        EXPECT_EQ(pool, Rec(h)->uiPoolFree);
        EXPECT_EQ(static_cast<int>(pool), pel.live_inits());
        EXPECT_EQ(MAV_OK, MavEnd(&h));
        EXPECT_EQ(0, pel.live_inits());
        EXPECT_EQ(0u, pel.bad_releases());
    }
}

TEST_F(LifecycleInstances, PoolOfTwoGivesTwoPooledAndOneListed) {
    MAV_HANDLE h = Start();
    ASSERT_EQ(MAV_OK, MavSetPoolSize(h, 2));
    MAV_INST a = nullptr, b = nullptr, c = nullptr;
    for (MAV_INST* i : {&a, &b, &c}) ASSERT_EQ(MAV_OK, MavCreateInstance(h, i));
    EXPECT_TRUE(Inst(a)->bPooled && Inst(b)->bPooled && !Inst(c)->bPooled);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(a) % 64);  // cache-line aligned blocks
    EXPECT_EQ(MavGetHandle(c), h);

    MAV_INST c2 = c;
    EXPECT_EQ(MAV_OK, MavFreeInstance(&c));  // listed: ended, pointer cleared
    EXPECT_EQ(nullptr, c);
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavFreeInstancePointer(c2));
    MAV_INST a2 = a;
    EXPECT_EQ(MAV_OK, MavFreeInstance(&a));  // pooled: back to the pool
    EXPECT_EQ(a2, a);
    EXPECT_FALSE(Inst(a)->bInUse);
    EXPECT_EQ(1u, Rec(h)->uiPoolFree);
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavFreeInstance(&a));  // not in use any more

    EXPECT_EQ(MAV_E_IN_PROGRESS, MavEnd(&h));  // b still handed out
    MAV_INST again = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &again));  // the free pooled one
    EXPECT_EQ(a, again);
    EXPECT_EQ(2, pel.live_inits());
    EXPECT_EQ(MAV_OK, MavFreeInstance(&again));
    EXPECT_EQ(MAV_OK, MavFreeInstancePointer(b));
    EXPECT_EQ(MAV_OK, MavFreeInstancePointer(nullptr));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(0, pel.live_inits());
}

using LifecyclePools = Lifecycle;

TEST_F(LifecyclePools, GetInstanceHandsOutTwiceWhilePoolGrows) {
    MAV_HANDLE h = Start();
    EXPECT_EQ(nullptr, MavGetInstance(h));  // pool size 0, nothing free
    EXPECT_EQ(nullptr, MavGetInstance(nullptr));
    ASSERT_EQ(MAV_OK, MavLoadPool(h, 1, 0));
    ASSERT_EQ(MAV_OK, MavSetPoolSize(h, 2));
    MAV_INST first = Rec(h)->pPool[0];
    MAV_INST got = MavGetInstance(h);
    ASSERT_NE(nullptr, got);
    EXPECT_NE(first, got);             // the new one replaces the one handed out ...
    EXPECT_TRUE(Inst(first)->bInUse);  // ... which stays in use
    EXPECT_EQ(2u, Rec(h)->uiPooled);
    EXPECT_EQ(0u, Rec(h)->uiPoolFree);
    EXPECT_EQ(nullptr, MavGetInstance(h));  // full, nothing free
    EXPECT_EQ(MAV_OK, MavFreeInstance(&got));
    EXPECT_EQ(got, MavGetInstance(h));  // full pool: plain hand-out
    EXPECT_EQ(MAV_OK, MavFreeInstance(&got));
    EXPECT_EQ(MAV_E_IN_PROGRESS, MavEnd(&h));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&first));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

TEST_F(LifecyclePools, SizeLoadAndFree) {
    MAV_HANDLE h = Start();
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavSetPoolSize(nullptr, 2));
    EXPECT_EQ(0u, MavGetPoolSize(nullptr));
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavLoadPool(h, 0, 0));
    ASSERT_EQ(MAV_OK, MavLoadPool(h, 3, 0));
    EXPECT_EQ(3u, MavGetPoolSize(h));
    EXPECT_EQ(3u, Rec(h)->uiPoolFree);
    EXPECT_EQ(3, pel.live_inits());
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavLoadPool(h, 2, 0));  // smaller: refused
    EXPECT_EQ(MAV_OK, MavSetPoolSize(h, 2));               // smaller: size only
    EXPECT_EQ(2u, MavGetPoolSize(h));
    EXPECT_EQ(3u, Rec(h)->uiPooled);

    MAV_INST i = MavGetInstance(h);
    ASSERT_NE(nullptr, i);
    EXPECT_EQ(MAV_E_IN_PROGRESS, MavFreePool(h));
    EXPECT_EQ(3, pel.live_inits());
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));  // slot 0, within the size: back to the pool
    EXPECT_EQ(MAV_OK, MavFreePool(h));
    EXPECT_EQ(0u, MavGetPoolSize(h));
    EXPECT_EQ(0u, Rec(h)->uiPooled);
    EXPECT_EQ(nullptr, Rec(h)->pPool);
    EXPECT_EQ(0, pel.live_inits());
    EXPECT_EQ(MAV_OK, MavFreePool(nullptr));
    // Usable again; default parameters on load give each instance its own
    // configuration.
    ASSERT_EQ(MAV_OK, MavLoadPool(h, 2, 1));
    EXPECT_EQ(2u, Rec(h)->uiPoolFree);
    EXPECT_NE(Rec(h)->pCfg, Rec(h)->pPool[0]->pCfg);
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(0, pel.live_inits());
}

TEST_F(LifecyclePools, FreePoolAndReloadWithSizeZeroEndTheSharedEngine) {
    for (uint32_t model : {1u, 2u}) {
        SCOPED_TRACE(model);
        pel.reset();
        pel.set_adapter_info(4711, model, 2, 1, 0, "Kormo Test", "testpel");
        MAV_HANDLE h = Start();
        ASSERT_EQ(MAV_OK, MavLoadPool(h, 2, 0));
        EXPECT_EQ(1, pel.live_inits());
        if (model == 1) {
            EXPECT_EQ(MAV_OK, MavFreePool(h));
            EXPECT_EQ(MAV_OK, MavFreePool(h));  // no engine: no second PelEnd
        } else {
            ASSERT_EQ(MAV_OK, MavSetPoolSize(h, 0));
            EXPECT_EQ(MAV_OK, MavReload(h));
            EXPECT_EQ(0u, Rec(h)->uiPooled);
        }
        EXPECT_EQ(nullptr, Rec(h)->pSharedInit);
        EXPECT_EQ(0, pel.live_inits());
        EXPECT_EQ(1u, pel.calls(TPEL_INIT));
        EXPECT_EQ(1u, pel.calls(TPEL_END));
        EXPECT_EQ(MAV_OK, MavEnd(&h));
        EXPECT_EQ(0u, pel.bad_releases());
    }
}

TEST_F(LifecyclePools, ReloadRecreatesThePoolUnlessAnInstanceIsOut) {
    EXPECT_EQ(MAV_OK, MavReload(nullptr));  // nothing registered
    MAV_HANDLE h = Start();
    ASSERT_EQ(MAV_OK, MavLoadPool(h, 2, 0));
    EXPECT_EQ(MAV_OK, MavReload(h));
    EXPECT_EQ(2u, pel.calls(TPEL_END));
    EXPECT_EQ(4u, pel.calls(TPEL_INIT));
    EXPECT_EQ(2u, Rec(h)->uiPoolFree);
    EXPECT_EQ(2, pel.live_inits());
    EXPECT_EQ(1u, pel.calls(TPEL_STARTUP));  // the adapter stays started
    EXPECT_EQ(1u, pel.calls(TPEL_GETCONFIG));

    // Pooled instances out, then a listed one alone, block reload (of one or
    // of all handles) and end.
    MAV_INST i[3] = {};
    for (MAV_INST& x : i) ASSERT_EQ(MAV_OK, MavCreateInstance(h, &x));
    EXPECT_FALSE(Inst(i[2])->bPooled);  // the pool is full: the third is listed
    for (int freed : {0, 2}) {
        EXPECT_EQ(MAV_E_IN_PROGRESS, MavReload(h));
        EXPECT_EQ(MAV_E_IN_PROGRESS, MavReload(nullptr));
        EXPECT_EQ(MAV_E_IN_PROGRESS, MavEnd(&h));
        EXPECT_EQ(3, pel.live_inits()) << freed;  // nothing released
        if (freed == 0) {
            EXPECT_EQ(MAV_OK, MavFreeInstance(&i[0]));
            EXPECT_EQ(MAV_OK, MavFreeInstance(&i[1]));
        }
    }
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i[2]));
    EXPECT_EQ(MAV_OK, MavReload(nullptr));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    EXPECT_EQ(0, pel.live_inits());
}



}  // namespace
